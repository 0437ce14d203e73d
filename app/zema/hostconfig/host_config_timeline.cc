#include "app/zema/hostconfig/host_config_timeline.h"

#include "proto/switching/switching.pb.h"

namespace zem::zema {

timeline::OperationPtr BeginHostConfig(const orlane::zem::switching::HostConfigMsg& message,
                                       std::string_view what) {
  timeline::OperationPtr operation =
      timeline::Begin(timeline::Kind::kHostConfig, what, {message.id(), message.transport_node_id()});
  for (const auto& host_switch : message.host_switches()) {
    operation->AddKey(host_switch.id());
    operation->AddKey(host_switch.name());
  }
  return operation;
}

}  // namespace zem::zema
