#include "app/ctxteng/handler/ctxt_client_handler.h"

#include <array>
#include <boost/exception/diagnostic_information.hpp>
#include <mutex>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/firewall/connection_attributes.h"
#include "app/ctxteng/firewall/dfw_connector.h"
#include "app/ctxteng/guest/endvat_lib.h"
#include "app/ctxteng/guest/endvat_names.h"
#include "app/ctxteng/guest/session_info_builder.h"
#include "app/ctxteng/guest/user_tables.h"
#include "app/ctxteng/handler/store_monitors.h"
#include "framework/log/log.h"
#include "platform/core/condition.h"
#include "platform/core/thread.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr uint32_t kFirewallBits = kIdfwBit | kIdsBit | kZemiBit;
constexpr std::chrono::seconds kStartUpPatience{10};
constexpr uint32_t kVerdict = 1;

// System events of the library.
bool IsLogon(uint32_t type) { return type == 0 || type == 4 || type == 6; }
bool IsLogoff(uint32_t type) { return type == 1 || type == 5 || type == 7; }

}  // namespace

// What the start-up thread and the handler share: the thread may outlive a shutdown that has given up on it.
struct CtxtClientHandler::StartUp {
  std::mutex mutex;  // guards what follows
  zem::Condition changed;
  bool cancelled = false;
  bool ended = false;

  bool Cancelled() {
    std::lock_guard lock(mutex);
    return cancelled;
  }
};

CtxtClientHandler::CtxtClientHandler(ClientSet clients, UserTables& users, DfwUtil::DfwConnector& firewall)
    : clients_(std::move(clients)),
      users_(users),
      firewall_(firewall),
      monitors_(std::make_shared<StoreMonitors>(clients_)) {}

CtxtClientHandler::~CtxtClientHandler() = default;

void CtxtClientHandler::Initialize(uint32_t client_ids, const CtxtClientParam& param,
                                   const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store,
                                   const std::shared_ptr<zem::upm::UPMService>& profiles,
                                   std::function<void()> started) {
  builder_ = std::make_unique<ConnInfoBuilder>(
      users_, clients_.is_well_known_sid,
      ConnInfoBuilder::HashOptions{param.enableProcessHash, param.useOldProcessHashMethod});
  next_user_fetch_tick_ = 1;
  if ((client_ids & kZemiBit) != 0 && clients_.pace != nullptr) clients_.pace->RegisterUpmMonitor(profiles);
  if ((client_ids & kIdsBit) != 0 && clients_.ids != nullptr) clients_.ids->RegisterUpmMonitor(profiles);
  try {
    if (store != nullptr) monitors_->Configure(client_ids, store);
  } catch (const CtxtCoveDbMonitorError& error) {
    ZLOG_CTX_ERROR(103,
                   "CtxtClientHandler: Critical exception while configuring covedb monitor, behavior may be "
                   "undefined - %s",
                   error.what());
  }
  ZLOG_INFO("CtxtClientHandler: Initializing context clients");
  // Known to the stop only when there is a thread that it can wait for.
  const auto start_up = std::make_shared<StartUp>();
  zem::NativeThread thread({.name = "ctxt:start", .detached = true},
                           [this, client_ids, param, store, started = std::move(started), start_up] {
                             InitializeClients(client_ids, param, store, *start_up);
                             try {
                               if (!start_up->Cancelled()) EnableCallbacks();
                             } catch (...) {
                               // It has been logged; the thread's end is as far up as it goes.
                             }
                             started();
                             std::lock_guard lock(start_up->mutex);
                             start_up->ended = true;
                             start_up->changed.NotifyAll();
                           });
  start_up_ = start_up;
  ZLOG_INFO("CtxtClientHandler: InitializeClients thread started");
}

void CtxtClientHandler::InitializeClients(uint32_t client_ids, const CtxtClientParam& param,
                                          const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store,
                                          StartUp& start_up) {
  ZLOG_INFO("CtxtClientHandler: Initializing client ids: %u", client_ids);
  try {
    const auto initialize = [&](uint32_t bit, const std::shared_ptr<ICtxtClient>& client, const char* name) {
      if ((client_ids & bit) != 0) InitializeClient(bit, client, name, param, store, start_up);
    };
    initialize(kSampleBit, clients_.sample, "Sample");
    if ((client_ids & kFirewallBits) != 0 && !start_up.Cancelled()) firewall_.Initialize();
    initialize(kIdfwBit, clients_.idfw, "IDFW");
    initialize(kIdsBit, clients_.ids, "IDS");
    initialize(kZemiBit, clients_.pace, "ZEMI");
  } catch (const boost::exception& error) {
    ZLOG_CTX_ERROR(104, "CtxtClientHandler: Boost exception while initializing context clients, error: %s",
                   boost::diagnostic_information(error).c_str());
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(104, "CtxtClientHandler: Exception while initializing context clients, error: %s",
                   error.what());
  } catch (...) {
    ZLOG_CTX_ERROR(104, "CtxtClientHandler: Unhandled exception while initializing context clients");
  }
}

void CtxtClientHandler::InitializeClient(uint32_t bit, const std::shared_ptr<ICtxtClient>& client,
                                         const char* name, const CtxtClientParam& param,
                                         const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store,
                                         StartUp& start_up) {
  if (client == nullptr || start_up.Cancelled()) return;
  ZLOG_INFO("CtxtClientHandler: Initializing client %s", name);
  client->Initialize(param, store);
  {
    // A shutdown that has given up on this thread counts the client as not active.
    std::lock_guard lock(start_up.mutex);
    if (!start_up.cancelled) {
      active_clients_ |= bit;
      monitors_->SetActive(active_clients_);
      return;
    }
  }
  client->Shutdown();
}

void CtxtClientHandler::EnableCallbacks() {
  ZLOG_INFO("All clients initialized successfully");
  ZLOG_INFO("CtxtClientHandler: Enabling Context library callbacks");
  const auto library = EndvatLib();
  uint32_t status = ENDVAT_SUCCESS;
  try {
    status = library->EndvatEnableCallbacks();
  } catch (...) {
    ZLOG_CTX_ERROR(105, "CtxtClientHandler: Unhandled exception in enabling Context library callbacks");
    throw;
  }
  if (status == ENDVAT_SUCCESS) return;
  ZLOG_CTX_ERROR(105, "CtxtClientHandler: Failed to enable Context library callbacks, error: %s",
                 EndvatUtil::ErrorName(status));
  const uint32_t unloaded = library->EndvatLibUnload();
  if (unloaded != ENDVAT_SUCCESS)
    ZLOG_CTX_ERROR(105, "CtxtClientHandler: Failed to unload Context library, error: %s",
                   EndvatUtil::ErrorName(unloaded));
}

bool CtxtClientHandler::Shutdown(uint32_t client_ids) {
  bool start_ended = true;
  if (start_up_ != nullptr) {
    std::unique_lock lock(start_up_->mutex);
    start_up_->cancelled = true;
    start_ended = start_up_->changed.WaitFor(lock, kStartUpPatience, [this] { return start_up_->ended; });
    lock.unlock();
    if (!start_ended)
      ZLOG_WARN("CtxtClientHandler: The clients are still being initialized, going on without them");
  }
  ZLOG_INFO("CtxtClientHandler: Shutting down client ids: %u", client_ids);
  if ((client_ids & (kIdfwBit | kZemiBit)) != 0) firewall_.Stop();
  if (Active(kFirewallBits)) {
    ShutdownClient(client_ids, kIdfwBit, clients_.idfw, "IDFW");
    ShutdownClient(client_ids, kIdsBit, clients_.ids, "IDS");
    ShutdownClient(client_ids, kZemiBit, clients_.pace, "ZEMI");
    firewall_.Stop();
  }
  ShutdownClient(kSampleBit, kSampleBit, clients_.sample, "Sample");
  ZLOG_INFO("CtxtClientHandler: Active clients: %u", active_clients());
  return start_ended;
}

void CtxtClientHandler::ShutdownClient(uint32_t client_ids, uint32_t bit,
                                       const std::shared_ptr<ICtxtClient>& client, const char* name) {
  if ((client_ids & bit) == 0 || !Active(bit)) return;
  ZLOG_INFO("CtxtClientHandler: Shutting down client %s", name);
  try {
    client->Shutdown();
  } catch (const std::exception& error) {
    ZLOG_WARN("CtxtClientHandler: The client %s failed to shut down: %s", name, error.what());
  }
  active_clients_ &= ~bit;
  monitors_->SetActive(active_clients_);
}

void CtxtClientHandler::VmPowerOn(const GuestTable::Record& vm) {
  if (Active(kFirewallBits)) firewall_.GetFilters(DfwUtil::kAgent);
  if (Active(kIdfwBit)) clients_.idfw->VmPowerOnEventHandler(vm);
  if (Active(kIdsBit)) clients_.ids->VmPowerOnEventHandler(vm);
  if (Active(kZemiBit)) clients_.pace->VmPowerOnEventHandler(vm);
  if (Active(kSampleBit)) clients_.sample->VmPowerOnEventHandler(vm);
}

void CtxtClientHandler::VmPowerOff(const GuestTable::Record& vm) {
  if (Active(kIdfwBit)) clients_.idfw->VmPowerOffEventHandler(vm);
  if (Active(kIdsBit)) clients_.ids->VmPowerOffEventHandler(vm);
  if (Active(kZemiBit)) clients_.pace->VmPowerOffEventHandler(vm);
  if (Active(kSampleBit)) clients_.sample->VmPowerOffEventHandler(vm);
}

void CtxtClientHandler::Timer(const GuestTable::Record& vm) {
  FetchUsers(*vm);
  if (Active(kIdsBit)) clients_.ids->TimerEventHandler(vm);
  if (Active(kZemiBit)) clients_.pace->TimerEventHandler(vm);
  if (Active(kSampleBit)) clients_.sample->TimerEventHandler(vm);
}

void CtxtClientHandler::FetchUsers(VmData& vm) {
  uint32_t due = next_user_fetch_tick_;
  if (vm.timer_events != due || vm.os.os_type != kWindows || vm.os.terminal_svc_enabled) return;
  if (users_.HasDesktop(vm.vc_uuid)) return;
  if (FetchUserInfo(vm, users_) != ENDVAT_ERROR_GUEST_NOT_READY) return;
  const uint32_t next = due < 3 ? 3 : due + 3;
  // Of several guests that are not ready in the same tick, one moves the tick.
  if (next_user_fetch_tick_.compare_exchange_strong(due, next))
    ZLOG_INFO("CtxtClientHandler: Fetch user session at new tick: %u", next);
}

void CtxtClientHandler::GiInfo(const GuestTable::Record& vm) {
  if (Active(kZemiBit)) clients_.pace->GiInfoHandler(vm);
}

bool CtxtClientHandler::Wants(uint32_t bit, uint32_t client_type, uint32_t type, VmData& vm) const {
  return Active(bit) && GuestTable::IsNetworkEventEnabled(vm, client_type, type);
}

uint32_t CtxtClientHandler::NetworkEvent(uint32_t type, ENDVAT_HANDLE handle, const GuestTable::Record& vm) {
  bool idfw = Wants(kIdfwBit, kIdfwClient, type, *vm);
  bool ids = Wants(kIdsBit, kIdsClient, type, *vm);
  bool zemi = Wants(kZemiBit, kZemiClient, type, *vm);
  const bool sample = Active(kSampleBit);
  if (!idfw && !ids && !zemi && !sample) return kVerdict;
  std::shared_ptr<const ConnInfo> connection;
  try {
    connection = builder_->Build(type, handle, *vm);
    Dump(*connection);
    if (idfw) idfw = clients_.idfw->NetworkEventHandler(connection, vm);
    if (zemi) zemi = clients_.pace->NetworkEventHandler(connection, vm);
    if (ids) ids = clients_.ids->NetworkEventHandler(connection, vm);
    if (idfw || zemi || ids) ProgramDfw(*connection, zemi);
  } catch (const std::exception& error) {
    ZLOG_WARN("Failed to get conn info, error %s, cannot send network event to clients", error.what());
  } catch (...) {
    ZLOG_WARN("Failed to get conn info, error %s, cannot send network event to clients", "unknown");
  }
  try {
    if (sample && connection != nullptr) clients_.sample->NetworkEventHandler(connection, vm);
  } catch (const std::exception& error) {
    ZLOG_WARN("CtxtClientHandler: The sample client failed: %s", error.what());
  }
  return kVerdict;
}

void CtxtClientHandler::ProgramDfw(const ConnInfo& connection, bool zemi_wanted) {
  // A connection whose user is not known has nothing that the firewall could compare.
  if (connection.user_dfw_key.empty()) return;
  DfwUserProcessInfo info;
  info.ip_version = connection.ip_version;
  info.protocol = connection.protocol;
  info.user_dfw_key = connection.user_dfw_key;
  info.src_ip = connection.src_ip;
  info.dest_ip = connection.dest_ip;
  info.src_port = static_cast<uint32_t>(connection.src_port);
  info.dest_port = static_cast<uint32_t>(connection.dest_port);
  info.nc_vc_uuid = connection.nc_vc_uuid;
  info.group_keys = connection.group_keys;
  info.process_dfw_key = connection.process_dfw_key;
  info.user_hash = connection.user_hash;
  const char* const user = info.user_dfw_key.c_str();
  if (connection.missed_login) {
    ZLOG_INFO("CtxtClientHandler: Program groups for missed user login: %s", user);
    if (firewall_.AddUserGroupMembership(info) != DfwUtil::DfwConnector::kDone)
      ZLOG_CTX_ERROR(101, "CtxtClientHandler: Failed to program groups for missed user login: %s ", user);
  }
  int result;
  if (zemi_wanted) {
    ZLOG_DEBUG("CtxtClientHandler: Program user id: %s, process hash: %lu for Zemi", user,
               info.process_dfw_key);
    result = firewall_.AddUserAndProcess(info);
  } else {
    ZLOG_DEBUG("CtxtClientHandler: Programming DFW with userDfwKey: %s", user);
    result = firewall_.AddUser(info);
  }
  if (result != DfwUtil::DfwConnector::kWantsMembership) return;
  ZLOG_INFO("CtxtClientHandler: User-group info not configured for user: %s, re-programming groups", user);
  if (firewall_.AddUserGroupMembership(info) != DfwUtil::DfwConnector::kDone) return;
  ZLOG_INFO("CtxtClientHandler: Re-program user id: %s, process hash: %lu", user, info.process_dfw_key);
  if (zemi_wanted) {
    ZLOG_INFO("Programming DFW with user and process info");
    (void)firewall_.AddUserAndProcess(info);
  } else {
    ZLOG_INFO("Programming DFW with user info");
    (void)firewall_.AddUser(info);
  }
}

void CtxtClientHandler::SystemEvent(uint32_t type, ENDVAT_HANDLE handle, const GuestTable::Record& vm) {
  const auto enabled = [&](uint32_t bit, uint32_t client_type) {
    return Active(bit) && GuestTable::IsClientEnabled(*vm, client_type);
  };
  const bool wanted =
      enabled(kIdfwBit, kIdfwClient) || enabled(kZemiBit, kZemiClient) || enabled(kIdsBit, kIdsClient);
  // A logoff cleans the caches also while nobody listens: what stays would name the user of later
  // connections.
  if (!wanted && !IsLogoff(type)) {
    ZLOG_DEBUG("CtxtClientHandler: Return from SendSystemEvent: clients disabled");
    return;
  }
  std::shared_ptr<const UserSessionInfo> session;
  try {
    session = BuildUserSessionInfo(type, handle, *vm, users_);
  } catch (const std::exception& error) {
    ZLOG_WARN("Failed to get user session info, not sending event to clients: %s", error.what());
    return;
  }
  Dump(*session);
  if (IsLogon(type)) Logon(*session, *vm);
  if (IsLogoff(type)) Logoff(*session, *vm);
  if (!wanted) {
    ZLOG_DEBUG("CtxtClientHandler: Return from SendSystemEvent: clients disabled");
    return;
  }
  try {
    if (Active(kIdfwBit)) clients_.idfw->SystemEventHandler(session, vm);
    if (Active(kZemiBit)) clients_.pace->SystemEventHandler(session, vm);
  } catch (const std::exception& error) {
    ZLOG_WARN("CtxtClientHandler: A client failed on a system event: %s", error.what());
  }
}

void CtxtClientHandler::Logon(const UserSessionInfo& session, VmData& vm) {
  if (session.dfw_key.empty()) return;
  auto user = std::make_shared<LRUCacheValue>();
  user->session_id = static_cast<uint32_t>(session.session_id);
  user->sid = session.dfw_key;
  user->user_name = session.user_name;
  user->domain_name = session.domain_name;
  if (vm.os.os_type != kWindows) {
    ZLOG_INFO("CtxtClientHandler: Adding login info for user %d to cache", session.uid);
    user->group_ids = session.group_ids;
    users_.PutUser(session.user_hash, std::move(user));
    return;
  }
  DfwUserProcessInfo info;
  info.user_dfw_key = session.sid;
  info.user_hash = session.user_hash;
  info.nc_vc_uuid = vm.nc_vc_uuid;
  info.group_keys = session.group_sids;
  if (firewall_.AddUserGroupMembership(info) != DfwUtil::DfwConnector::kDone) {
    ZLOG_CTX_ERROR(102,
                   "CtxtClientHandler: Failed to program user-group membership on Logon, will retry on first "
                   "preconnect");
    return;
  }
  ZLOG_INFO("CtxtClientHandler: Adding login info for user %s to cache", session.sid.c_str());
  ZLOG_INFO("CtxtClientHandler: Login: Add entry to session cache: session id: %d, vmid: %s",
            session.session_id, vm.vc_uuid.c_str());
  users_.AddSession(SessionKey(vm.vc_uuid, user->session_id), user);
  if (!vm.os.terminal_svc_enabled) {
    ZLOG_INFO("CtxtClientHandler: logon event, adding vc: %s, usersid: %s", vm.vc_uuid.c_str(),
              session.dfw_key.c_str());
    users_.AddDesktop(vm.vc_uuid, {session.dfw_key, user->session_id});
  }
  users_.PutUser(session.user_hash, std::move(user));
}

void CtxtClientHandler::Logoff(const UserSessionInfo& session, VmData& vm) {
  if (vm.os.os_type == kWindows) {
    ZLOG_INFO("CtxtClientHandler: Logoff: Remove entry from session cache: session id: %d, vmid: %s,",
              session.session_id, vm.vc_uuid.c_str());
    users_.RemoveSession(SessionKey(vm.vc_uuid, static_cast<uint32_t>(session.session_id)));
    if (!vm.os.terminal_svc_enabled) {
      ZLOG_INFO("CtxtClientHandler: system logoff event, removing vc: %s", vm.vc_uuid.c_str());
      users_.RemoveDesktop(vm.vc_uuid);
    }
  }
  if (!session.dfw_key.empty()) users_.RemoveUser(session.user_hash);
}

}  // namespace Ctxt
