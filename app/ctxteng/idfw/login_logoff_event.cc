#include "app/ctxteng/idfw/login_logoff_event.h"

#include <array>
#include <string>

#include "app/ctxteng/idfw/login_logoff_info.h"
#include "framework/log/log.h"
#include "platform/core/uuid.h"
#include "proto/context/idfw.pb.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

// The manager's numbers of login, logoff, connect and disconnect.
constexpr std::array<uint32_t, 4> kEventTypes = {1, 2, 4, 3};

constexpr uint32_t kIpVersions = 2;
constexpr uint32_t kNoIpVersion = 65535;

bool FillId(const std::string& text, orlane::zem::UuidMsg* id) {
  const auto uuid = zem::ParseUuidDigits(text);
  zem::SetUuid(uuid.value_or(boost::uuids::uuid{}), id);
  return uuid.has_value();
}

}  // namespace

bool FillLoginLogoffEvent(const LoginLogoffInfo& info, orlane::zem::context::idfw::LoginLogoffEvent* event) {
  auto* const user = event->mutable_user();
  user->set_sid(info.sid);
  user->set_user_name(info.userName);
  user->set_domain_name(info.domainName);
  event->set_session_id(info.sessionId);
  if (info.eventType < kEventTypes.size()) {
    event->set_event_type(kEventTypes[info.eventType]);
  } else {
    ZLOG_INFO("Idfw: Unknown login/logoff event type");
  }
  event->set_timestamp(info.timestamp);
  const bool vm = FillId(info.vcUuid, event->mutable_vm_id());
  const bool bios = FillId(info.biosUuid, event->mutable_bios_id());
  if (info.clientIpType < kIpVersions) {
    auto* const client = event->mutable_client_ip();
    client->set_type(info.clientIpType + 1);
    client->set_address(std::string(info.ClientIpText()));
  } else if (info.clientIpType == kNoIpVersion) {
    ZLOG_INFO("Idfw: Address type not specified for login/logoff event client IP");
  } else {
    ZLOG_INFO("Idfw: Unknown IP address type for login/logoff event client IP");
  }
  return vm && bios;
}

}  // namespace Ctxt
