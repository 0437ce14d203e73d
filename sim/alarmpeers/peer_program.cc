#include "sim/alarmpeers/peer_program.h"

#include <sys/prctl.h>

#include <array>
#include <csignal>
#include <memory>

#include "platform/core/uuid.h"
#include "platform/provider/provider.h"
#include "sim/alarms/alarm_client.h"
#include "sim/alarms/status_client.h"
#include "sim/control/command_table.h"
#include "sim/control/control_server.h"
#include "sim/control/number.h"

namespace zem::sim {
namespace {

constexpr size_t kWords = 5;

struct FaultName {
  const char* name;
  AlarmClient::Fault fault;
};
constexpr std::array kFaults = {
    FaultName{"none", AlarmClient::Fault::kNone},
    FaultName{"silence", AlarmClient::Fault::kSilent},
    FaultName{"late", AlarmClient::Fault::kLate},
    FaultName{"doubled", AlarmClient::Fault::kDoubled},
    FaultName{"unknown-id", AlarmClient::Fault::kUnknownId},
    FaultName{"wrong-type", AlarmClient::Fault::kWrongType},
    FaultName{"other-kind", AlarmClient::Fault::kOtherKind},
    FaultName{"bare", AlarmClient::Fault::kBare},
};

Json StateJson(const AlarmClient& client) {
  const AlarmClient::State state = client.state();
  Json result = JsonObject();
  AddMember(result.get(), "connected", state.connected);
  AddMember(result.get(), "welcomed", state.welcomed);
  AddMember(result.get(), "reporting", state.reporting);
  AddMember(result.get(), "connections", state.connections);
  AddMember(result.get(), "refused_subscriptions", state.refused_subscriptions);
  AddMember(result.get(), "full_syncs", state.full_syncs);
  AddMember(result.get(), "syncs", state.syncs);
  AddMember(result.get(), "refused_answers", state.refused_answers);
  AddMember(result.get(), "refused_reports", state.refused_reports);
  Json raised = JsonArray();
  for (const auto& [key, context] : state.raised) {
    Json item = JsonObject();
    AddMember(item.get(), "type", key.first);
    AddMember(item.get(), "entity", key.second);
    AddMember(item.get(), "context", context);
    AddItem(raised.get(), std::move(item));
  }
  AddMember(result.get(), "raised", std::move(raised));
  Json violations = JsonArray();
  for (const std::string& text : state.violations) AddItem(violations.get(), text);
  AddMember(result.get(), "violations", std::move(violations));
  return result;
}

Json StateJson(const StatusClient& source) {
  const StatusClient::State state = source.state();
  Json result = JsonObject();
  AddMember(result.get(), "registered", state.registered);
  AddMember(result.get(), "refused", state.refused);
  AddMember(result.get(), "full_syncs_asked", state.full_syncs_asked);
  AddMember(result.get(), "full_syncs_confirmed", state.full_syncs_confirmed);
  AddMember(result.get(), "configurations", state.configurations);
  AddMember(result.get(), "collection_enabled", state.collection_enabled);
  Json table = JsonObject();
  for (const auto& [name, interval] : state.table) AddMember(table.get(), name.c_str(), interval);
  AddMember(result.get(), "table", std::move(table));
  AddMember(result.get(), "statuses", static_cast<uint64_t>(state.statuses.size()));
  return result;
}

// Returns false, after an answer, when the first two arguments are no event type and entity.
bool ReadKey(const Arguments& arguments, const Reply& reply, AlarmClient::Key* key) {
  const auto type = NumberOf<uint32_t>(arguments[0]);
  if (!type || !ParseUuid(arguments[1])) {
    reply.Fail("an event type and the uuid of an entity");
    return false;
  }
  *key = {*type, arguments[1]};
  return true;
}

void RegisterClient(CommandTable& table, AlarmClient& client) {
  AlarmClient* const c = &client;
  table.Register({"state", "", "Shows the client.", 0, 0,
                  [c](const Arguments&, const Reply& reply) { reply.Ok(StateJson(*c)); }});
  table.Register({"raise", "TYPE ENTITY [CONTEXT]", "An event stands.", 2, 3,
                  [c](const Arguments& arguments, const Reply& reply) {
                    AlarmClient::Key key;
                    if (!ReadKey(arguments, reply, &key)) return;
                    c->Raise(key, arguments.size() > 2 ? arguments[2] : "{}");
                    reply.Ok();
                  }});
  table.Register({"clear", "TYPE ENTITY", "An event does not stand any more.", 2, 2,
                  [c](const Arguments& arguments, const Reply& reply) {
                    AlarmClient::Key key;
                    if (!ReadKey(arguments, reply, &key)) return;
                    c->Clear(key);
                    reply.Ok();
                  }});
  table.Register({"fault", "none|silence|late|doubled|unknown-id|wrong-type|other-kind|bare",
                  "How the client answers from now on.", 1, 1,
                  [c](const Arguments& arguments, const Reply& reply) {
                    for (const FaultName& each : kFaults) {
                      if (arguments[0] != each.name) continue;
                      c->SetFault(each.fault);
                      return reply.Ok();
                    }
                    reply.Fail("no fault " + arguments[0]);
                  }});
  table.Register({"reconnect", "", "Ends the connection and makes a new one.", 0, 0,
                  [c](const Arguments&, const Reply& reply) {
                    c->Reconnect();
                    reply.Ok();
                  }});
}

void RegisterStatus(CommandTable& table, StatusClient& source) {
  StatusClient* const s = &source;
  table.Register({"state", "", "Shows the status source.", 0, 0,
                  [s](const Arguments&, const Reply& reply) { reply.Ok(StateJson(*s)); }});
  table.Register({"set", "FEATURE STATUS [COUNT]",
                  "Reports a feature's status; with COUNT that of so many features.", 2, 3,
                  [s](const Arguments& arguments, const Reply& reply) {
                    const auto count = arguments.size() > 2 ? NumberOf<int64_t>(arguments[2]) : std::nullopt;
                    if (!count) s->Set(arguments[0], arguments[1]);
                    for (int64_t i = 0; count && i < *count; ++i)
                      s->Set(arguments[0] + std::to_string(i), arguments[1]);
                    reply.Ok();
                  }});
  table.Register({"heartbeat", "", "Sends a heartbeat.", 0, 0, [s](const Arguments&, const Reply& reply) {
                    s->SendHeartbeat();
                    reply.Ok();
                  }});
  table.Register({"full-syncs", "succeed|fail|unanswered", "What becomes of full syncs from now on.", 1, 1,
                  [s](const Arguments& arguments, const Reply& reply) {
                    using FullSyncs = StatusClient::FullSyncs;
                    const std::string& word = arguments[0];
                    if (word != "succeed" && word != "fail" && word != "unanswered")
                      return reply.Fail("succeed, fail or unanswered");
                    s->SetFullSyncs(word == "succeed" ? FullSyncs::kSucceed
                                    : word == "fail"  ? FullSyncs::kFail
                                                      : FullSyncs::kUnanswered);
                    reply.Ok();
                  }});
}

}  // namespace

std::vector<std::string> PeerSettings::ToWords() const {
  return {kind, id, std::to_string(feature_id), without_service ? "without-service" : "with-service", socket};
}

std::string PeerSettings::FromWords(const std::vector<std::string>& words, PeerSettings* settings) {
  if (words.size() != kWords) return "KIND ID FEATURE with-service|without-service SOCKET";
  const auto feature = NumberOf<uint32_t>(words[2]);
  if (!feature) return "not a feature: " + words[2];
  if (words[0] != "serving" && words[0] != "subscribing" && words[0] != "status")
    return "not serving, subscribing or status: " + words[0];
  *settings = {words[0], words[1], *feature, words[3] == "without-service", words[4]};
  return {};
}

int RunAlarmPeer(const PeerSettings& settings) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  std::signal(SIGPIPE, SIG_IGN);
  AsioZemProvider provider;
  CommandTable table;
  std::unique_ptr<AlarmClient> client;
  std::unique_ptr<StatusClient> status;
  if (settings.kind == "status") {
    status = std::make_unique<StatusClient>();
    RegisterStatus(table, *status);
  } else {
    AlarmClient::Options options;
    options.kind = settings.kind == "serving" ? AlarmClient::Kind::kServing : AlarmClient::Kind::kSubscribing;
    options.source_id = settings.id;
    options.feature_id = settings.feature_id;
    options.serves = !settings.without_service;
    client = std::make_unique<AlarmClient>(std::move(options));
    RegisterClient(table, *client);
  }
  const ControlServer server(provider, table, settings.socket);
  provider.Run(1);
  return 0;
}

}  // namespace zem::sim
