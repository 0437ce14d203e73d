#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "app/ctxteng/base/ictxt_client.h"
#include "app/ctxteng/firewall/dfw_connector.h"
#include "bench/guest-events/sim_endvat_lib.h"
#include "sim/guest/world/guest_world.h"

namespace zem::bench {

/// Every client of the engine but the sample one.
extern const uint32_t kClients;

/// A firewall that takes everything at once.
class NoFirewall final : public Ctxt::DfwUtil::DfwConnector {
 public:
  NoFirewall();
  void Initialize() override {}
  void Stop() override {}
  int AddUserGroupMembership(const Ctxt::DfwUserProcessInfo&) override { return kDone; }
  int AddUser(const Ctxt::DfwUserProcessInfo&) override { return kDone; }
  int AddUserAndProcess(const Ctxt::DfwUserProcessInfo&) override { return kDone; }
  int GetFilters(const std::string&) override { return 1; }
};

/// A client that wants nothing by itself, takes what comes, and counts the connections.
class CountingClient final : public Ctxt::ICtxtClient {
 public:
  void Initialize(const CtxtClientParam&,
                  const std::shared_ptr<zem::covedb::CoveDbClientInterface>&) override {}
  void VmPowerOnEventHandler(const std::shared_ptr<Ctxt::VmData>& vm) override { record_ = vm.get(); }
  void VmPowerOffEventHandler(const std::shared_ptr<Ctxt::VmData>&) override {}
  bool NetworkEventHandler(const std::shared_ptr<const Ctxt::ConnInfo>&,
                           const std::shared_ptr<Ctxt::VmData>&) override {
    connections_.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
  void Shutdown() override {}

  /// Of the guest that was turned on last.
  Ctxt::VmData* record() const { return record_; }
  uint64_t connections() const { return connections_; }

 private:
  std::atomic<Ctxt::VmData*> record_{nullptr};
  std::atomic<uint64_t> connections_{0};
};

/// The name and the uuid of a guest by its number, 1 to 99.
std::string NameOf(int number);
std::string UuidOf(int number);
/// Adds a guest with a user and a process, and turns it on.
void AddGuest(sim::guest::GuestWorld& world, int number);
/// A connection of that process.
sim::guest::Socket Connection();

/// Starts the engine with `client` as its identity firewall, and as all the others where `everywhere` is set;
/// `wrap` sees each network event.
void StartEngine(sim::guest::GuestWorld& world, NoFirewall& firewall,
                 const std::shared_ptr<CountingClient>& client, bool everywhere = false,
                 sim::guest::WrapNetworkHandler wrap = nullptr);

}  // namespace zem::bench
