#pragma once

#include <functional>
#include <string>
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

  GuestLife(zem::sim::guest::GuestWorld& world, FakeFirewall& firewall, RecordingClient& client)
      : world_(world), firewall_(firewall), client_(client) {}

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
  RecordingClient& client_;
};

}  // namespace Ctxt::test
