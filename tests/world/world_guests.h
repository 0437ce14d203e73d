#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "app/ctxteng/base/ictxt_client.h"
#include "sim/idfw/logon_receiver.h"
#include "tests/app/ctxteng/engine/guest_life.h"

namespace zem {
class AsioZemProvider;
namespace sim {
class Store;
}
}  // namespace zem

namespace zem::world {

/// The guests of the world, and the context engine over them with its identity firewall: users, sessions and
/// connections, a toggle in the store, a firewall that loses everything, a manager that takes logons or does
/// not, and what must be true of all that at quiet.
///
/// Threads: the thread of the life.
class WorldGuests {
 public:
  /// What is given outlives the object.  A small cache holds only a few logons.
  WorldGuests(sim::Manager& manager, sim::Store& store, bool small_cache);
  ~WorldGuests();

  void StartAgent(AsioZemProvider& provider,
                  const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store);
  void StopAgent();

  /// A few random changes of guests, users and connections.
  void Change(std::mt19937_64& random);
  /// The manager's answers to logons go wrong, or come late.
  void Misanswer(std::mt19937_64& random);
  void Calm();
  std::vector<std::string> Check(const std::function<void()>& settle);

 private:
  class Spy;

  void Turn(bool on);
  void CheckLogons(std::vector<std::string>* lines);

  sim::Store& store_;
  const bool small_cache_;
  uint64_t starts_ = 0;
  sim::LogonReceiver receiver_;
  sim::guest::GuestWorld world_;
  Ctxt::test::FakeFirewall firewall_;
  std::shared_ptr<Spy> spy_;
  Ctxt::test::GuestLife life_;
};

}  // namespace zem::world
