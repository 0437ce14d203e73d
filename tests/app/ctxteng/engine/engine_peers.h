#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "app/ctxteng/base/ictxt_client.h"
#include "app/ctxteng/engine/ctxt_core.h"
#include "app/ctxteng/firewall/dfw_connector.h"
#include "app/ctxteng/firewall/fw_lib.h"

namespace Ctxt::test {

constexpr const char* kAlice = "S-1-5-21-1-1-1-1001";
constexpr const char* kSystemAccount = "S-1-5-18";

/// A firewall that knows the users whose groups it was told, and asks for those of the others.
class FakeFirewall final : public DfwUtil::DfwConnector {
 public:
  FakeFirewall() : DfwConnector([] { return std::unique_ptr<IFwLib>(); }) {}

  void Initialize() override {}
  void Stop() override {}
  int AddUserGroupMembership(const DfwUserProcessInfo& info) override {
    std::lock_guard lock(mutex);
    calls.push_back("groups " + info.user_dfw_key);
    if (!reachable) return kFailed;
    groups[info.user_dfw_key] = info.group_keys;
    if (info.group_keys.empty()) ++told_no_groups;
    return kDone;
  }
  int AddUser(const DfwUserProcessInfo& info) override { return Add("user ", info); }
  int AddUserAndProcess(const DfwUserProcessInfo& info) override { return Add("process ", info); }
  int GetFilters(const std::string&) override { return 1; }

  std::mutex mutex;
  bool reachable = true;
  bool always_wants_groups = false;
  std::map<std::string, std::vector<std::string>> groups;
  uint64_t told_no_groups = 0;
  std::vector<std::string> calls;
  std::vector<DfwUserProcessInfo> connections;

 private:
  int Add(const char* call, const DfwUserProcessInfo& info) {
    std::lock_guard lock(mutex);
    calls.push_back(call + info.user_dfw_key);
    if (always_wants_groups || groups.count(info.user_dfw_key) == 0) return kWantsMembership;
    connections.push_back(info);
    return kDone;
  }
};

/// A client that keeps what it is told.
class RecordingClient final : public ICtxtClient {
 public:
  void Initialize(const CtxtClientParam&,
                  const std::shared_ptr<zem::covedb::CoveDbClientInterface>&) override {
    if (on_initialize) on_initialize();
  }
  void VmPowerOnEventHandler(const std::shared_ptr<VmData>& vm) override {
    std::lock_guard lock(mutex);
    guests[vm->vc_uuid] = vm;
    if (mask != 0) CtxtCore::GetInstance().guests().SetEventMask(vm->vc_uuid, type, mask);
  }
  void VmPowerOffEventHandler(const std::shared_ptr<VmData>& vm) override {
    std::lock_guard lock(mutex);
    guests.erase(vm->vc_uuid);
  }
  void GiInfoHandler(const std::shared_ptr<VmData>&) override { ++gi; }
  bool NetworkEventHandler(const std::shared_ptr<const ConnInfo>& info,
                           const std::shared_ptr<VmData>&) override {
    if (on_event) on_event();
    std::lock_guard lock(mutex);
    connections.push_back(*info);
    return programs;
  }
  void SystemEventHandler(const std::shared_ptr<const UserSessionInfo>& info,
                          const std::shared_ptr<VmData>&) override {
    std::lock_guard lock(mutex);
    sessions.push_back(*info);
  }
  void Shutdown() override { ++shutdowns; }

  std::function<void()> on_initialize;
  std::function<void()> on_event;
  ClientType type = kIdfwClient;
  uint64_t mask = 0x48;
  bool programs = true;
  std::mutex mutex;
  std::map<std::string, std::shared_ptr<VmData>> guests;
  std::vector<ConnInfo> connections;
  std::vector<UserSessionInfo> sessions;
  std::atomic<int> gi{0};
  std::atomic<int> shutdowns{0};
};

}  // namespace Ctxt::test
