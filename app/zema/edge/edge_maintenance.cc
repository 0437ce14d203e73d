#include "app/zema/edge/edge_maintenance.h"

#include "app/zema/manager/mpa_message_sender.h"
#include "framework/log/log.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

namespace switching = orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

// States in the request; the store's numbers are higher by one.
constexpr uint32_t kLeave = 0;
constexpr uint32_t kLastState = 2;
// States in the answer.
constexpr uint32_t kIn = 1;
constexpr uint32_t kOut = 3;

constexpr uint32_t kActionFailed = 8702;

}  // namespace

void EdgeMaintenance::Apply(const RawBusMessage& message) const {
  switching::MaintenanceModeConfigMsg config;
  // The code that stores the message has already logged an error when it does not parse.
  if (config.ParseFromString(message.payload)) SendActionToEdgeService(config, message);
}

void EdgeMaintenance::SendActionToEdgeService(const switching::MaintenanceModeConfigMsg& config,
                                              const RawBusMessage& origin) const {
  switching::MaintenanceModeConfigResultMsg reply;
  reply.set_transport_node_id(config.transport_node_id());
  reply.set_id(config.id());
  reply.set_revision(config.revision());
  EdgeService::Outcome outcome = EdgeService::Outcome::kFailed;
  std::string error = "Invalid mmode setting";
  // An unknown state must not be taken for a request to leave the mode.
  if (config.has_state() && config.state() <= kLastState) {
    const bool on = config.state() != kLeave;
    ZLOG_INFO("[%s] Maintenance Mode is %d\n", __func__, static_cast<int>(config.state() + 1));
    outcome = service_.SetMaintenanceMode(on, &error);
  } else {
    ZLOG_ERROR("41020", "[%s] %s", __func__, error.c_str());
  }
  if (outcome == EdgeService::Outcome::kFailed) {
    reply.set_error_code(kActionFailed);
    reply.set_error_text(error);
  } else {
    reply.set_state(outcome == EdgeService::Outcome::kEnabled ? kIn : kOut);
    reply.set_error_code(0);
    reply.set_error_text("");
  }
  ZLOG_INFO("Sending maintenance mode reply back for Edge");
  if (sender_.TnMmodeConfigReply(origin.correlation_id, origin.reply_to, reply)) {
    ZLOG_INFO("Sent Maintenance Mode reply back for Edge");
  }
}

}  // namespace zem::zema
