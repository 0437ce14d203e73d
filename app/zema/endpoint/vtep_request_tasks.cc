#include "app/zema/endpoint/vtep_request_tasks.h"

#include <map>
#include <optional>
#include <vector>

#include "app/zema/endpoint/vtep_ip_fetching_task.h"
#include "app/zema/hostlib/endpoint_library.h"
#include "app/zema/manager/mpa_message_sender.h"
#include "app/zema/proxy/host_switch_lists.h"
#include "app/zema/workers/task_queues.h"
#include "framework/log/log.h"
#include "framework/process/error_text.h"

namespace zem::zema {
namespace {

namespace switching = orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr int32_t kNotAttempted = -1;

constexpr const char* kDhcp = "DHCP";
constexpr const char* kDhcpv6 = "DHCPv6";
constexpr const char* kAutoConf = "AUTO_CONF";

// The manager's numbers are the reverse of the library's; any other number is passed on as invalid.
int LibraryState(const switching::VTEPAdminStateMgmtRequestMsg& request) {
  if (!request.has_admin_state()) return -1;
  switch (request.admin_state()) {
    case 0:
      return 1;
    case 1:
      return 0;
    default:
      return -1;
  }
}

std::optional<std::string> NameOf(LumCommands& lum, const std::string& dvs) {
  std::string error;
  const auto names = GetDvsNames(lum, {dvs}, &error);
  if (!names || names->size() != 1 || names->front().empty()) return std::nullopt;
  return names->front();
}

// `attempt` makes the library call on the switch of this name.
template <class Attempt>
int32_t Carry(EndpointContext& context, const std::string& device, const std::string& dvs, std::string* text,
              Attempt attempt) {
  if (device.empty() || dvs.empty()) return kNotAttempted;
  const auto name = NameOf(context.lum, dvs);
  if (!name) {
    ZLOG_INFO("dvsName not retrieved");
    *text += "failed to retrieve the dvsName.";
    return kNotAttempted;
  }
  ZLOG_INFO("dvsName retrieved [%s] for dvsUuid[%s]", name->c_str(), dvs.c_str());
  const EndpointLibrary::Outcome outcome = attempt(*name);
  if (outcome.result == 0) {
    *text += "succeeded";
  } else {
    *text += "failed with error code " + std::to_string(outcome.error) + " : " +
             Tarvik::Util::GetErrMsg(outcome.error) + " on dvs " + *name;
  }
  return outcome.result;
}

}  // namespace

VtepRecoveryTask::VtepRecoveryTask(std::shared_ptr<EndpointContext> context, std::string correlation_id,
                                   std::string reply_to, switching::VTEPRecoveryRequestMsg request)
    : MpaMessageTask(context->sender, std::move(correlation_id), std::move(reply_to), std::move(request)),
      context_(std::move(context)) {}

void VtepRecoveryTask::Run() {
  ZLOG_INFO("VtepRecoveryTask started...");
  std::string text = "Sending VTEP Recovery response ";
  switching::VTEPRecoveryResultMsg result;
  result.set_result(
      Carry(*context_, message_.device_name(), message_.switch_id(), &text, [this](const std::string& name) {
        return context_->library.RecoverKnlnic(name, message_.device_name());
      }));
  result.set_result_text(text);
  result.set_request_id(message_.request_id());
  if (sender_ != nullptr) sender_->VtepRecoveryReply(correlation_id_, reply_to_, result);
}

VtepAdminStateTask::VtepAdminStateTask(std::shared_ptr<EndpointContext> context, std::string correlation_id,
                                       std::string reply_to, switching::VTEPAdminStateMgmtRequestMsg request)
    : MpaMessageTask(context->sender, std::move(correlation_id), std::move(reply_to), std::move(request)),
      context_(std::move(context)) {}

void VtepAdminStateTask::Run() {
  ZLOG_INFO("VtepAdminStateTask started");
  std::string text = "Sending VTEP Admin State response ";
  switching::VTEPAdminStateMgmtResultMsg result;
  result.set_result(
      Carry(*context_, message_.device_name(), message_.switch_id(), &text, [this](const std::string& name) {
        return context_->library.SetKnlnicState(name, message_.device_name(), LibraryState(message_));
      }));
  result.set_result_text(text);
  result.set_request_id(message_.request_id());
  if (sender_ != nullptr) sender_->VtepAdminStateReply(correlation_id_, reply_to_, result);
}

void VtepIPSync(const std::shared_ptr<EndpointContext>& context, const std::string& reply_to,
                const switching::VtepIPSyncMsg& request) {
  ZLOG_INFO("VtepIPSync started..");
  ZLOG_INFO("StartVtepIPSyncFetchingTask  started..");
  const AddressFetchingTask::Event event{reply_to, request.id(), request.transport_node_id(),
                                         request.revision()};
  const AddressFetchingTask::Tries once{0, true};
  for (const auto& host_switch : request.host_switch_vtep()) {
    const std::vector<std::string> devices(host_switch.device_name().begin(),
                                           host_switch.device_name().end());
    const std::string& type = host_switch.address_type();
    if (type == kDhcp) {
      context->workers.AddTask(Worker::kPostHostSync,
                               std::make_unique<VtepIpFetchingTask>(context, event, devices, once));
    } else if (type == kDhcpv6 || type == kAutoConf) {
      std::map<std::string, std::string> kinds;
      for (const std::string& device : devices) kinds[device] = type == kDhcpv6 ? "dhcp" : "linklayer";
      context->workers.AddTask(Worker::kPostHostSync,
                               std::make_unique<VtepIpv6FetchingTask>(context, event, kinds, once));
    }
  }
}

}  // namespace zem::zema
