#include "app/zema/endpoint/vtep_ip_fetching_task.h"

#include <utility>

#include "app/zema/endpoint/endpoint_address.h"
#include "app/zema/manager/mpa_message_sender.h"
#include "app/zema/proxy/lum_commands.h"
#include "app/zema/proxy/lum_reply.h"
#include "app/zema/state/realization_options.h"
#include "app/zema/workers/task_queues.h"
#include "framework/log/log.h"
#include "framework/node/host_identity.h"
#include "framework/tasks/function_task.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

namespace switching = orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr std::string_view kNotAssigned = "IpNotAssigned";
// IPv4, IPv6, and a third word.
constexpr size_t kMembers = 3;

}  // namespace

/// The differences between the two address families.
struct AddressFetchingTask::Family {
  const char* started;
  const char* no_devices;
  const char* no_host;
  const char* retrying;
  const char* limit;
  /// The address that is reported for an endpoint without one.
  const char* none;
  size_t member;
  bool (*assigned)(std::string_view address);
  void (switching::VtepMsg::*set)(const std::string& address);
  void (*log_found)(const std::string& address, const std::string& device);
  void (*log_not_yet)(const std::string& device);
  void (*log_failed)(const std::string& device, const std::string& kind, const char* what,
                     const std::string& reply);
};

const AddressFetchingTask::Family AddressFetchingTask::kIpv4 = {
    "VtepIpFetchingTask started",
    "No vteps in the request, skip VtepIpFetchingTask.",
    "Skipping VtepIpFetchingTask as host is currently not setup for zem operation",
    "Retrying to fetch vtep ips, VtepIpFetchingTask reply skipped",
    "The vtep ip fetching retry limit exceeded. Abort the task.",
    "0.0.0.0",
    0,
    &IsAssignedIpv4,
    &switching::VtepMsg::set_ipv4_address<const std::string&>,
    [](const std::string& address, const std::string& device) {
      ZLOG_INFO("Get the ip [%s] of vtep [%s].", address.c_str(), device.c_str());
    },
    [](const std::string& device) {
      ZLOG_INFO("The vtep [%s] does not have ip yet, retry later.", device.c_str());
    },
    [](const std::string& device, const std::string&, const char* what, const std::string& reply) {
      ZLOG_ERROR("42066", "Failed to fetch the ip of vtep [%s]. %s: %s", device.c_str(), what, reply.c_str());
    }};

const AddressFetchingTask::Family AddressFetchingTask::kIpv6 = {
    "VtepIpv6FetchingTask started",
    "No vteps in the request, skip VtepIpv6FetchingTask.",
    "Skipping VtepIpv6FetchingTask as host is currently not setup for zem operation",
    "Retrying to fetch ipv6 for vteps, VtepIpv6FetchingTask reply skipped",
    "The vtep ipv6 fetching retry limit exceeded. Abort the task.",
    "::",
    1,
    &IsAssignedIpv6,
    &switching::VtepMsg::set_ipv6_address<const std::string&>,
    [](const std::string& address, const std::string& device) {
      ZLOG_INFO("Get the ipv6 [%s] of vtep [%s].", address.c_str(), device.c_str());
    },
    [](const std::string& device) {
      ZLOG_INFO("The vtep [%s] does not have ipv6 yet, retry later.", device.c_str());
    },
    [](const std::string& device, const std::string& kind, const char* what, const std::string& reply) {
      ZLOG_ERROR("42066", "Failed to fetch the ipv6 of vtep [%s] having config type [%s]. %s: %s",
                 device.c_str(), kind.c_str(), what, reply.c_str());
    }};

AddressFetchingTask::AddressFetchingTask(const Family& family, std::shared_ptr<EndpointContext> context,
                                         Event event, Devices devices, Tries tries)
    : family_(family),
      context_(std::move(context)),
      event_(std::move(event)),
      devices_(std::move(devices)),
      tries_(tries) {}

void AddressFetchingTask::Run() {
  ZLOG_INFO("%s", family_.started);
  if (devices_.empty()) {
    ZLOG_INFO("%s", family_.no_devices);
    return;
  }
  if (Superseded()) return;
  if (!context_->pause(std::chrono::seconds(context_->options.Snapshot().vtep_dhcp_ip_fetching_timeout)))
    return;
  if (Superseded()) return;
  if (!context_->host.id()) {
    ZLOG_INFO("%s", family_.no_host);
    return;
  }
  std::map<std::string, std::string> found;
  Devices again;
  for (const auto& [device, kind] : devices_) {
    std::string address;
    switch (Ask(device, kind, &address)) {
      case Answer::kUnreadable:
        return;
      case Answer::kFailed:
        break;
      case Answer::kFound:
        found[device] = address;
        break;
      case Answer::kNotYet:
        again.emplace_back(device, kind);
        if (tries_.sync_mode && tries_.retries == 0) found[device] = family_.none;
    }
  }
  if (!found.empty()) Tell(found);
  if (again.empty()) return;
  if (tries_.retries < 1) {
    ZLOG_ERROR("42067", "%s", family_.limit);
    return;
  }
  Retry(std::move(again));
}

bool AddressFetchingTask::Superseded() const {
  if (!tries_.configuration || *tries_.configuration == context_->configuration) return false;
  ZLOG_INFO("[%s] a newer configuration has come, the addresses of [%s] revision [%s] are not asked for",
            "Run", event_.id.c_str(), event_.revision.c_str());
  return true;
}

AddressFetchingTask::Answer AddressFetchingTask::Ask(const std::string& device, const std::string& kind,
                                                     std::string* address) {
  std::string question = "vtepDeviceId=" + device;
  if (!kind.empty()) question += "|ipv6AddressConfigType=" + kind;
  std::string reply;
  if (context_->lum.InvokeRPC(LumOperation::kReadEndpointAddresses, question, &reply) !=
      LumCommands::kRpcSucceeded) {
    family_.log_failed(device, kind, "Error", reply);
    return Answer::kFailed;
  }
  const auto members = SplitTokens(reply, '~');
  if (members.size() != kMembers) {
    family_.log_failed(device, kind, "Invalid response", reply);
    return Answer::kUnreadable;
  }
  *address = members[family_.member];
  if (!family_.assigned(*address) || reply.find(kNotAssigned) != std::string::npos) {
    family_.log_not_yet(device);
    return Answer::kNotYet;
  }
  family_.log_found(*address, device);
  return Answer::kFound;
}

void AddressFetchingTask::Tell(const std::map<std::string, std::string>& found) {
  switching::TransportNodeEventMsg event;
  event.set_id(event_.id);
  event.set_transport_node_id(event_.transport_node_id);
  event.set_revision(event_.revision);
  for (const auto& [device, address] : found) {
    auto* const vtep = event.mutable_dhcp_ip_acquired_event()->add_vtep();
    vtep->set_device_name(device);
    (vtep->*family_.set)(address);
  }
  if (context_->sender != nullptr) context_->sender->SendTransportNodeEventMsg(event_.reply_to, event);
}

void AddressFetchingTask::Retry(Devices devices) {
  ZLOG_INFO("%s", family_.retrying);
  // The successor is of this base class: the two public classes differ only in their constructors.
  class Successor final : public AddressFetchingTask {
   public:
    Successor(const AddressFetchingTask& from, Devices left)
        : AddressFetchingTask(from.family_, from.context_, from.event_, std::move(left),
                              {from.tries_.retries - 1, false, from.tries_.configuration}) {}
  };
  context_->workers.AddTask(Worker::kPostHostSync, std::make_unique<Successor>(*this, std::move(devices)));
}

VtepIpFetchingTask::VtepIpFetchingTask(std::shared_ptr<EndpointContext> context, Event event,
                                       const std::vector<std::string>& devices, Tries tries)
    : AddressFetchingTask(
          kIpv4, std::move(context), std::move(event),
          [&] {
            Devices pairs;
            for (const std::string& device : devices) pairs.emplace_back(device, "");
            return pairs;
          }(),
          tries) {}

VtepIpv6FetchingTask::VtepIpv6FetchingTask(std::shared_ptr<EndpointContext> context, Event event,
                                           const std::map<std::string, std::string>& kinds, Tries tries)
    : AddressFetchingTask(kIpv6, std::move(context), std::move(event), Devices(kinds.begin(), kinds.end()),
                          tries) {}

}  // namespace zem::zema
