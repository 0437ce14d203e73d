#include "agent/combined_message.h"

#include <algorithm>

#include "framework/log/log.h"
#include "mpaclient/client_registry.h"
#include "proto/sha/sha.pb.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

constexpr int kUp = 1;
constexpr int kDown = 2;
constexpr int kReportKind = 2;

}  // namespace

void BuildCombinedMessage(orlane::zem::sha::AgentsMetricsMsg* message) {
  auto* const data = message->mutable_status_data();
  data->set_status(kUp);
  data->set_health(kUp);
  const auto clients = ClientRegistry::All();
  const bool connected = std::any_of(clients.begin(), clients.end(), [](const auto& client) {
    return client.second->connection_state() == MpaClient::kConnected;
  });
  auto* const proxy = data->add_sub_status();
  proxy->set_name("tarvik-proxy-connection");
  proxy->set_status(connected ? kUp : kDown);
  data->add_process_status(kUp);
  message->set_report_kind(kReportKind);
  if (ZLOG_WANTS(kLogDebug)) ZLOG_DEBUG("ShaGetCombinedMessage: %s.", message->ShortDebugString().c_str());
}

}  // namespace zem::Tarvik
