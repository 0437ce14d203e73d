#pragma once

#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/app/ctxteng/engine/guest_life.h"

namespace zem::world {

/// The guests of the world, and the context engine over them: users, sessions and connections, a firewall
/// that loses everything, and what must be true of all that at quiet.
///
/// Threads: the thread of the life.
class WorldGuests {
 public:
  WorldGuests();
  ~WorldGuests();

  void StartAgent();
  void StopAgent();

  /// A few random changes of guests, users and connections.
  void Change(std::mt19937_64& random);
  void Calm();
  std::vector<std::string> Check(const std::function<void()>& settle);

 private:
  sim::guest::GuestWorld world_;
  Ctxt::test::FakeFirewall firewall_;
  const std::shared_ptr<Ctxt::test::RecordingClient> client_ =
      std::make_shared<Ctxt::test::RecordingClient>();
  Ctxt::test::GuestLife life_{world_, firewall_, *client_};
};

}  // namespace zem::world
