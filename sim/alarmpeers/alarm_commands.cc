#include "sim/alarmpeers/alarm_commands.h"

#include <google/protobuf/text_format.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <map>
#include <optional>
#include <set>

#include "platform/core/thread.h"
#include "platform/core/uuid.h"
#include "proto/monitoring/monitoring.pb.h"
#include "sim/alarmpeers/alarm_peers.h"
#include "sim/alarms/collector.h"
#include "sim/control/command_options.h"
#include "sim/control/command_table.h"
#include "sim/control/number.h"

namespace zem::sim {
namespace {

using orlane::zem::monitoring::CollectorHostMsg;
using orlane::zem::monitoring::CollectorMpMsg;

constexpr size_t kMany = 1000;

struct AnswersName {
  const char* name;
  Collector::Answers answers;
};
constexpr std::array kAnswers = {
    AnswersName{"true", Collector::Answers::kTrue},
    AnswersName{"false", Collector::Answers::kFalse},
    AnswersName{"never", Collector::Answers::kNever},
    AnswersName{"garbage", Collector::Answers::kGarbage},
    AnswersName{"no-type", Collector::Answers::kNoType},
    AnswersName{"unknown-type", Collector::Answers::kUnknownType},
};

struct SignalName {
  const char* name;
  int number;
};
constexpr std::array kSignals = {SignalName{"KILL", SIGKILL}, SignalName{"TERM", SIGTERM},
                                 SignalName{"STOP", SIGSTOP}, SignalName{"CONT", SIGCONT}};

Json Texts(const std::vector<std::string>& texts) {
  Json array = JsonArray();
  for (const std::string& text : texts) AddItem(array.get(), text);
  return array;
}

Json InstanceJson(const Collector::InstanceKey& key, const Collector::Instance& instance) {
  Json item = JsonObject();
  AddMember(item.get(), "source", instance.source_id);
  AddMember(item.get(), "feature", std::get<0>(key));
  AddMember(item.get(), "type", std::get<1>(key));
  AddMember(item.get(), "entity", std::get<2>(key));
  AddMember(item.get(), "qubio", std::get<3>(key));
  AddMember(item.get(), "status", instance.status);
  AddMember(item.get(), "context", instance.context);
  return item;
}

Json StateJson(const Collector& collector) {
  const Collector::State state = collector.state();
  Json result = JsonObject();
  AddMember(result.get(), "resets", state.resets);
  AddMember(result.get(), "node_id", state.node_id);
  AddMember(result.get(), "endpoint_id", state.endpoint_id);
  AddMember(result.get(), "sources", Texts({state.sources.begin(), state.sources.end()}));
  AddMember(result.get(), "source_syncs", state.source_syncs);
  AddMember(result.get(), "event_sequence", state.event_sequence);
  AddMember(result.get(), "status_sequence", state.status_sequence);
  AddMember(result.get(), "heartbeats", state.heartbeats);
  AddMember(result.get(), "gaps", state.gaps);
  AddMember(result.get(), "full_syncs", state.full_syncs);
  AddMember(result.get(), "leadership_changes", state.leadership_changes);
  AddMember(result.get(), "busy", state.busy);
  Json open = JsonArray();
  for (const auto& [key, instance] : state.open) AddItem(open.get(), InstanceJson(key, instance));
  AddMember(result.get(), "open_count", static_cast<uint64_t>(state.open.size()));
  AddMember(result.get(), "open", std::move(open));
  AddMember(result.get(), "violations", Texts(state.violations));
  return result;
}

void ShowReports(const Collector& collector, const Arguments& arguments, const Reply& reply) {
  const auto most = NumberOf<uint64_t>(arguments.empty() ? "20" : arguments[0]);
  if (!most) return reply.Fail("how many?");
  const Collector::State state = collector.state();
  Json reports = JsonArray();
  const size_t begin = state.reports.size() > *most ? state.reports.size() - *most : 0;
  for (size_t i = begin; i < state.reports.size(); ++i) {
    const Collector::Report& report = state.reports[i];
    Json item = JsonObject();
    AddMember(item.get(), "kind", report.is_status ? "status" : "events");
    AddMember(item.get(), "sequence", report.sequence);
    AddMember(item.get(), "members", static_cast<uint64_t>(report.members));
    AddMember(item.get(), "correlation_id", report.correlation_id);
    AddMember(item.get(), "text", report.text);
    AddItem(reports.get(), std::move(item));
  }
  reply.Ok(std::move(reports));
}

void ShowChanges(const Collector& collector, const Reply& reply) {
  Json changes = JsonArray();
  for (const Collector::Change& change : collector.state().changes)
    AddItem(changes.get(), InstanceJson(change.key, change.instance));
  reply.Ok(std::move(changes));
}

// Answers a command with what the host says.
Collector::Answered ReplyWith(const Reply& reply) {
  return [reply](const std::optional<CollectorMpMsg>& answer) {
    if (!answer) return reply.Fail("the host gave no answer");
    Json result = JsonObject();
    AddMember(result.get(), "type", answer->msg_type());
    if (answer->has_full_sync_response())
      AddMember(result.get(), "result", answer->full_sync_response().result());
    if (answer->sync_response().has_status())
      AddMember(result.get(), "status", answer->sync_response().status());
    if (answer->sync_response().has_context())
      AddMember(result.get(), "context", answer->sync_response().context());
    reply.Ok(std::move(result));
  };
}

void AskSync(Collector& collector, const Arguments& arguments, const Reply& reply) {
  const auto feature = NumberOf<uint32_t>(arguments[1]);
  const auto type = NumberOf<uint32_t>(arguments[2]);
  if (!feature || !type) return reply.Fail("two numbers: feature and event type");
  CollectorHostMsg message;
  message.set_msg_type(2);
  auto* const sync = message.mutable_sync_request();
  sync->set_source_id(arguments[0]);
  sync->set_feature_id(*feature);
  sync->set_event_type_id(*type);
  if (const auto entity = ParseUuid(arguments.size() > 3 ? arguments[3] : ""))
    SetUuid(*entity, sync->mutable_entity_id());
  if (const std::string error = collector.Ask(message, ReplyWith(reply)); !error.empty()) reply.Fail(error);
}

void StartClient(AlarmPeers& peers, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--feature"}, {"--without-service"});
  if (!options.error().empty()) return reply.Fail(options.error());
  const Arguments& words = options.positional();
  if (words.size() != 2) return reply.Fail("usage: client/start [OPTIONS] serving|subscribing|status ID");
  PeerSettings settings;
  const std::string error =
      PeerSettings::FromWords({words[0], words[1], options.Value("--feature").value_or("33"),
                               options.Has("--without-service") ? "without-service" : "with-service", ""},
                              &settings);
  if (!error.empty()) return reply.Fail(error);
  const std::string refused = peers.Start(settings);
  if (!refused.empty()) return reply.Fail(refused);
  reply.Ok();
}

void SignalClient(AlarmPeers& peers, const Arguments& arguments, const Reply& reply) {
  for (const SignalName& signal : kSignals) {
    if (arguments[1] != signal.name) continue;
    if (!peers.Signal(arguments[0], signal.number)) return reply.Fail(arguments[0] + " does not run");
    return reply.Ok();
  }
  reply.Fail("no signal " + arguments[1]);
}

void ListClients(const AlarmPeers& peers, const Reply& reply) {
  Json list = JsonArray();
  for (const AlarmPeers::Peer& peer : peers.All()) {
    Json item = JsonObject();
    AddMember(item.get(), "id", peer.settings.id);
    AddMember(item.get(), "kind", peer.settings.kind);
    AddMember(item.get(), "feature", peer.settings.feature_id);
    AddMember(item.get(), "running", peer.running);
    AddMember(item.get(), "stopped", peer.stopped);
    AddItem(list.get(), std::move(item));
  }
  reply.Ok(std::move(list));
}

// A process may take long to answer; the control thread must not wait for it.
void InBackground(std::function<void()> work) {
  NativeThread::Options options;
  options.detached = true;
  const NativeThread started(std::move(options), std::move(work));
}

void AskClient(AlarmPeers& peers, const Arguments& arguments, const Reply& reply) {
  const size_t blank = arguments[0].find(' ');
  if (blank == std::string::npos) return reply.Fail("ID COMMAND...");
  InBackground([&peers, id = arguments[0].substr(0, blank), command = arguments[0].substr(blank + 1), reply] {
    try {
      Json answer(cJSON_Parse(peers.Ask(id, command).c_str()));
      if (cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(answer.get(), "ok")) == 0) {
        const char* const error =
            cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(answer.get(), "error"));
        return reply.Fail(error != nullptr ? error : "no answer");
      }
      Json result(cJSON_DetachItemFromObjectCaseSensitive(answer.get(), "result"));
      if (result == nullptr) return reply.Ok();
      reply.Ok(std::move(result));
    } catch (const std::exception& error) {
      reply.Fail(error.what());
    }
  });
}

}  // namespace

std::vector<std::string> DrawAlarms(const Collector& collector, size_t most) {
  const Collector::State state = collector.state();
  std::vector<std::string> lines = {"alarms             " + std::to_string(state.open.size()) +
                                    " stand, from " + std::to_string(state.sources.size()) + " sources"};
  for (const auto& [key, instance] : state.open) {
    if (lines.size() > most) {
      lines.push_back("  ...");
      break;
    }
    std::string event = std::to_string(std::get<0>(key)) + "/" + std::to_string(std::get<1>(key));
    event.resize(std::max<size_t>(event.size(), 9), ' ');
    lines.push_back("  " + event + std::get<2>(key) + "  " + instance.source_id + "  " + instance.context);
  }
  return lines;
}

std::vector<std::string> AlarmDifferences(const Collector& collector, const AlarmPeers& peers) {
  std::vector<std::string> differences;
  std::map<uint32_t, std::string> features;  // of the clients that have a say
  std::set<std::string> raised;
  const auto name = [](uint32_t feature, uint32_t type, const std::string& entity) {
    return std::to_string(feature) + "/" + std::to_string(type) + "/" + entity;
  };
  for (const AlarmPeers::Peer& peer : peers.All()) {
    if (!peer.running || peer.stopped || peer.settings.kind == "status") continue;
    const Json state = peers.StateOf(peer.settings.id);
    if (state == nullptr) continue;
    features[peer.settings.feature_id] = peer.settings.id;
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, cJSON_GetObjectItemCaseSensitive(state.get(), "raised")) {
      raised.insert(name(peer.settings.feature_id,
                         static_cast<uint32_t>(cJSON_GetObjectItemCaseSensitive(item, "type")->valuedouble),
                         cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(item, "entity"))));
    }
  }
  std::set<std::string> open;
  for (const auto& [key, instance] : collector.state().open) {
    if (features.count(std::get<0>(key)) == 0) continue;
    open.insert(name(std::get<0>(key), std::get<1>(key), std::get<2>(key)));
  }
  for (const std::string& event : raised) {
    if (open.count(event) == 0) differences.push_back("raised, and not open at the collector: " + event);
  }
  for (const std::string& event : open) {
    if (raised.count(event) == 0) differences.push_back("open at the collector, and not raised: " + event);
  }
  return differences;
}

void RegisterAlarmCommands(CommandTable& table, Collector& collector, AlarmPeers& peers) {
  Collector* const c = &collector;
  AlarmPeers* const p = &peers;
  table.Register({"collector/state", "", "Shows the collector: events that stand, sources, numbers.", 0, 0,
                  [c](const Arguments&, const Reply& reply) { reply.Ok(StateJson(*c)); }});
  table.Register(
      {"collector/reports", "[COUNT]", "Shows the last reports of events and status.", 0, 1,
       [c](const Arguments& arguments, const Reply& reply) { ShowReports(*c, arguments, reply); }});
  table.Register({"collector/changes", "", "Shows what became of each event, a report of the same left out.",
                  0, 0, [c](const Arguments&, const Reply& reply) { ShowChanges(*c, reply); }});
  table.Register({"collector/answers", "true|false|never|garbage|no-type|unknown-type",
                  "How the collector answers resets and source syncs.", 1, 1,
                  [c](const Arguments& arguments, const Reply& reply) {
                    for (const AnswersName& each : kAnswers) {
                      if (arguments[0] != each.name) continue;
                      c->SetAnswers(each.answers);
                      return reply.Ok();
                    }
                    reply.Fail("no answer " + arguments[0]);
                  }});
  table.Register({"collector/follow-ups", "on|off", "Whether the collector asks for anything by itself.", 1,
                  1, [c](const Arguments& arguments, const Reply& reply) {
                    if (arguments[0] != "on" && arguments[0] != "off") return reply.Fail("on or off");
                    c->SetFollowUps(arguments[0] == "on");
                    reply.Ok();
                  }});
  table.Register({"full-sync", "", "The collector asks for all events.", 0, 0,
                  [c](const Arguments&, const Reply& reply) {
                    if (const std::string error = c->AskFullSync(ReplyWith(reply)); !error.empty())
                      reply.Fail(error);
                  }});
  table.Register({"sync", "SOURCE FEATURE TYPE [ENTITY]", "The collector asks for one event.", 3, 4,
                  [c](const Arguments& arguments, const Reply& reply) { AskSync(*c, arguments, reply); }});
  table.Register({"status-full-sync", "", "The collector asks for all status.", 0, 0,
                  [c](const Arguments&, const Reply& reply) {
                    CollectorHostMsg message;
                    message.set_msg_type(5);
                    if (const std::string error = c->Ask(message, ReplyWith(reply)); !error.empty())
                      reply.Fail(error);
                  }});
  table.Register(
      {"client/start", "[--feature N] [--without-service] serving|subscribing|status ID",
       "Starts a client's process, or the status source's.", 2, kMany,
       [p](const Arguments& arguments, const Reply& reply) { StartClient(*p, arguments, reply); }});
  table.Register(
      {"client/signal", "ID KILL|TERM|STOP|CONT", "Sends a client's process a signal.", 2, 2,
       [p](const Arguments& arguments, const Reply& reply) { SignalClient(*p, arguments, reply); }});
  table.Register({"client/list", "", "Shows the processes.", 0, 0,
                  [p](const Arguments&, const Reply& reply) { ListClients(*p, reply); }});
  Command ask;
  ask.name = "client";
  ask.usage = "ID COMMAND...";
  ask.help = "Gives a client's process a command; \"client ID help\" lists them.";
  ask.min_arguments = 1;
  ask.max_arguments = 1;
  ask.rest_of_line = true;
  ask.handler = [p](const Arguments& arguments, const Reply& reply) { AskClient(*p, arguments, reply); };
  table.Register(std::move(ask));
  table.Register({"check", "", "Shows where the collector and the clients differ.", 0, 0,
                  [c, p](const Arguments&, const Reply& reply) {
                    InBackground([c, p, reply] {
                      const std::vector<std::string> differences = AlarmDifferences(*c, *p);
                      Json result = JsonObject();
                      AddMember(result.get(), "busy", c->state().busy);
                      AddMember(result.get(), "count", static_cast<uint64_t>(differences.size()));
                      AddMember(result.get(), "differences", Texts(differences));
                      reply.Ok(std::move(result));
                    });
                  }});
}

}  // namespace zem::sim
