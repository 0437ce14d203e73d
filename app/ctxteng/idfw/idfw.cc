#include "app/ctxteng/idfw/idfw.h"

#include <exception>
#include <new>
#include <utility>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/guest/event_keys.h"
#include "app/ctxteng/guest/guest_table.h"
#include "app/ctxteng/idfw/login_logoff_info_cache.h"
#include "app/ctxteng/idfw/login_logoff_info_messenger.h"
#include "app/ctxteng/idfw/login_logoff_info_router.h"
#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

// Connects and sessions, as the library counts its events.
constexpr uint64_t kWantedEvents = 0x48;

constexpr SecurityFeature kFeature{
    .number = 5, .prefix = "Idfw", .name = "idfw", .unknown_operation_tag = 551};

constexpr uint32_t kIcmp = 1;
constexpr uint32_t kIcmpV6 = 58;

// A guest's agent may send any text; one that is no name could neither be kept nor sent with others.
constexpr size_t kMostName = 4096;

std::string NameOf(const std::string& text, const VmData& vm) {
  if (text.size() <= kMostName) return text;
  ZLOG_WARN("Idfw: A name of %zu bytes from VM %s is cut", text.size(), vm.vc_uuid.c_str());
  return text.substr(0, kMostName);
}

void FillFrom(const UserSessionInfo& session, const VmData& vm, LoginLogoffInfo* info) {
  info->userName = NameOf(session.user_name, vm);
  info->domainName = NameOf(session.domain_name, vm);
  ZLOG_DEBUG("Idfw: Received system event for VM of vc.uuid: %s and bios uuid: %s", vm.vc_uuid.c_str(),
             vm.bios_uuid.c_str());
  info->vcUuid = vm.vc_uuid;
  info->biosUuid = vm.bios_uuid;
  info->timestamp = WallMilliseconds();
  info->sessionId = static_cast<uint32_t>(session.session_id);
  info->eventType = session.session_type - 1;
  session.client_ip.copy(info->clientIp.data(), info->clientIp.size());
  info->clientIpType = session.client_ip_version;
}

}  // namespace

const std::shared_ptr<Idfw>& Idfw::GetInstance(GuestTable& guests, CtxtChannel& channel) {
  // Never destroyed: a thread of the library may still be in it while the process ends.
  static const auto& client = *new std::shared_ptr<Idfw>(std::make_shared<Idfw>(guests, channel));
  return client;
}

Idfw::Idfw(GuestTable& guests, CtxtChannel& channel)
    : guests_(guests),
      channel_(channel),
      master_switch_(kFeature, {.changed = {}, .apply = [this](bool enabled) { SetEnabled(enabled); }}) {}

Idfw::~Idfw() = default;

void Idfw::Initialize(const CtxtClientParam& param,
                      const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store) {
  store_ = store;
  master_switch_.Reset();
  event_mask_ = 0;
  ZLOG_INFO("Idfw: LoginLogoffInfoRouter cacheLimit: %u", param.cacheLimit);
  ZLOG_INFO("Idfw: LoginLogoffInfoRouter timerInterval: %u", param.timerInterval);
  ZLOG_INFO("Idfw: LoginLogoffInfoRouter ackTimeout: %u", param.ackTimeout);
  ZLOG_INFO("Idfw: LoginLogoffInfoRouter cacheThreshold: %u", param.cacheThreshold);
  ZLOG_INFO("Idfw: LoginLogoffInfoRouter maxBackoffCounter: %u", param.maxBackoffCounter);
  ZLOG_INFO("Idfw: #WellKnownSids: %zu, see zem-ctxteng.xml for details", param.wellKnownSids.size());
  try {
    well_known_sids_ = {param.wellKnownSids.begin(), param.wellKnownSids.end()};
    if (router_ == nullptr) MakeRouter(param);
  } catch (const CtxtException& error) {
    ZLOG_CTX_ERROR(501, "Idfw: Critical exception in IDFW, behavior may be undefined - %s", error.what());
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(501, "Idfw: Exception in IDFW client initialization, behavior may be undefined %s",
                   error.what());
  } catch (...) {
    ZLOG_CTX_ERROR(501, "Idfw: Unhandled exception in IDFW client initialization, behavior may be undefined");
  }
}

void Idfw::MakeRouter(const CtxtClientParam& param) {
  const auto router = std::make_shared<LoginLogoffInfoRouter>(
      LoginLogoffInfoRouter::Settings{.cache_limit = param.cacheLimit,
                                      .timer_interval = param.timerInterval,
                                      .ack_timeout = param.ackTimeout,
                                      .cache_threshold = param.cacheThreshold,
                                      .max_backoff_counter = param.maxBackoffCounter},
      channel_);
  router->Connect();
  router->Start();
  router_ = router;
}

void Idfw::Shutdown() { ZLOG_INFO("Idfw: Idfw Shutdown complete"); }

// --- Guests.

void Idfw::VmPowerOnEventHandler(const std::shared_ptr<VmData>& vm) {
  ZLOG_INFO("Idfw: VmPowerOnEventHandler for VM %s", vm->vc_uuid.c_str());
  guests_.SetEventMask(vm->vc_uuid, kIdfwClient, event_mask_);
}

void Idfw::VmPowerOffEventHandler(const std::shared_ptr<VmData>& vm) {
  ZLOG_INFO("Idfw: VmPowerOffEventHandler for VM %s", vm->vc_uuid.c_str());
}

bool Idfw::IsUserIgnored(const std::string& user_key) const {
  if (well_known_sids_.count(user_key) == 0) return false;
  ZLOG_DEBUG("Idfw: User %s is in ignored list", user_key.c_str());
  return true;
}

bool Idfw::NetworkEventHandler(const std::shared_ptr<const ConnInfo>& connection,
                               const std::shared_ptr<VmData>& vm) {
  ZLOG_DEBUG("Idfw NetworkEventHandler for VM %s", vm->vc_uuid.c_str());
  if (connection->os_type == kLinux) {
    ZLOG_DEBUG("Idfw: Linux OS not supported, ignoring event");
    return false;
  }
  if ((connection->protocol == kIcmp || connection->protocol == kIcmpV6) && vm->os.terminal_svc_enabled) {
    ZLOG_DEBUG("Idfw: ICMP not supported for RDSH, ignoring event");
    return false;
  }
  if (well_known_sids_.count(connection->sid) != 0) {
    ZLOG_DEBUG("Idfw: User %s is in ignored list, ignoring event", connection->sid.c_str());
    return false;
  }
  return true;
}

void Idfw::SystemEventHandler(const std::shared_ptr<const UserSessionInfo>& session,
                              const std::shared_ptr<VmData>& vm) {
  if (!master_switch_.enabled()) {
    ZLOG_DEBUG("Idfw: master switch is off, ignoring system event for VM %s", vm->vc_uuid.c_str());
    return;
  }
  if (router_ == nullptr) {
    ZLOG_WARN("Idfw: The client has not started, dropping a system event of VM %s", vm->vc_uuid.c_str());
    return;
  }
  try {
    auto info = std::make_unique<LoginLogoffInfo>();
    FillFrom(*session, *vm, info.get());
    router_->listener().OnEvent(std::move(info));
  } catch (const std::bad_alloc&) {
    ZLOG_CTX_ERROR(1054, "Idfw: Failed to allocate memory for Login/logoff info, dropping event");
  }
}

Idfw::Counts Idfw::Count() const {
  if (router_ == nullptr) return {};
  return {.waiting = router_->cache().Size(),
          .dropped = router_->cache().dropped(),
          .replaced = router_->messenger().replaced()};
}

// --- The feature toggle.

void Idfw::OnFeatureToggle(const orlane::zem::covedb::MonitorUpdateMsg& update) {
  master_switch_.Take(update);
}

void Idfw::StoreBegins() { master_switch_.StoreBegins(); }

void Idfw::StoreComplete() { master_switch_.StoreComplete(); }

void Idfw::SetEnabled(bool enabled) {
  event_mask_ = enabled ? kWantedEvents : 0;
  guests_.SetEventMaskForAllVms(kIdfwClient, event_mask_);
}

}  // namespace Ctxt
