#pragma once

#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "sim/guest/world/guest_world.h"
#include "tests/app/ctxteng/engine/engine_peers.h"

namespace Ctxt::test {

/// A random life of guests, users and connections, with a library that announces guests again and a firewall
/// that is away or loses everything; and what must be true of the engine at rest.
///
/// Threads: one, which has the virtual clock in its hand.
class GuestLife {
 public:
  /// A random number below its argument.
  using Number = std::function<int(int below)>;
  using Lines = std::vector<std::string>;

  /// The client for which the engine takes events, as one that wants those of the identity firewall.
  struct Client {
    /// The keys of the guests that it knows.
    std::function<std::set<std::string>()> guests;
    /// Lets it want events, or none.
    std::function<void(bool on)> turn;
    /// Whether it lets the firewall know the connections of such a guest.
    std::function<bool(const zem::sim::guest::Guest& guest)> wants;
  };
  static Client ClientOf(RecordingClient& client);

  GuestLife(zem::sim::guest::GuestWorld& world, FakeFirewall& firewall, Client client)
      : world_(world), firewall_(firewall), client_(std::move(client)) {}

  /// Desktops, a multi-session host and a Linux, all on.
  void AddGuests();
  void Step(const Number& number);
  /// Nothing is away any more; the guests' timers beat once.
  void Calm();
  /// Empty when the engine knows what the guests say, and nothing else.  `settle` lets all work end.
  Lines Check(const std::function<void()>& settle);

 private:
  void PowerOn(const std::string& name);
  void CheckCounts(const zem::sim::guest::Guest& guest, Lines* lines) const;
  void CheckUsers(const zem::sim::guest::Guest& guest, Lines* lines) const;
  void CheckConnection(const zem::sim::guest::Guest& guest, const std::function<void()>& settle,
                       Lines* lines);

  zem::sim::guest::GuestWorld& world_;
  FakeFirewall& firewall_;
  const Client client_;
};

}  // namespace Ctxt::test
