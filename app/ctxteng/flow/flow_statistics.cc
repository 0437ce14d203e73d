#include "app/ctxteng/flow/flow_statistics.h"

#include <array>

namespace Ctxt::PaceClient {
namespace {

struct Row {
  const char* name;
  FlowStatistics::Counter FlowStatistics::*counter;
};
constexpr std::array kRows = {
    Row{"vmEvents", &FlowStatistics::vm_events},
    Row{"connEvents", &FlowStatistics::conn_events},
    Row{"vmPowerOnEvents", &FlowStatistics::vm_power_on_events},
    Row{"systemEvents", &FlowStatistics::system_events},
    Row{"vmPowerOffEvents", &FlowStatistics::vm_power_off_events},
    Row{"serviceEvents", &FlowStatistics::service_events},
    Row{"serviceListenStartEvents", &FlowStatistics::service_listen_start_events},
    Row{"serviceListenStopEvents", &FlowStatistics::service_listen_stop_events},
    Row{"userEvents", &FlowStatistics::user_events},
    Row{"userlogonEvents", &FlowStatistics::user_logon_events},
    Row{"userLogoffEvents", &FlowStatistics::user_logoff_events},
    Row{"userConnectEvents", &FlowStatistics::user_connect_events},
    Row{"userDisconnectEvents", &FlowStatistics::user_disconnect_events},
    Row{"vms", &FlowStatistics::vms},
    Row{"processes", &FlowStatistics::processes},
    Row{"users", &FlowStatistics::users},
    Row{"contextMsgsSent", &FlowStatistics::context_msgs_sent},
    Row{"contextMsgBytesSent", &FlowStatistics::context_msg_bytes_sent},
    Row{"metricsMsgsSent", &FlowStatistics::metrics_msgs_sent},
    Row{"metricsMsgBytesSent", &FlowStatistics::metrics_msg_bytes_sent},
};

}  // namespace

std::string FlowStatistics::Text() const {
  std::string text = "Stats dump: <";
  for (const Row& row : kRows) {
    if (&row != kRows.data()) text += ", ";
    text += std::string(row.name) + ": " + std::to_string((this->*row.counter).load());
  }
  return text + ">--- End Stats dump";
}

}  // namespace Ctxt::PaceClient
