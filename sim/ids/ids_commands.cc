#include "sim/ids/ids_commands.h"

#include <array>
#include <utility>

#include "platform/hash/jhash.h"
#include "proto/context/ids.pb.h"
#include "sim/control/command_options.h"
#include "sim/control/command_table.h"
#include "sim/control/number.h"
#include "sim/data/data_folder.h"
#include "sim/ids/detection_process.h"
#include "sim/ids/ids_ledger.h"
#include "sim/ids/ids_services.h"
#include "sim/ids/log_collector.h"

namespace zem::sim {
namespace {

constexpr size_t kMany = 30;
constexpr size_t kShown = 20;

Json ArrivedJson(const IdsLedger::Arrived& arrived) {
  Json result = JsonObject();
  AddMember(result.get(), "messages", arrived.messages);
  AddMember(result.get(), "entries", arrived.entries);
  AddMember(result.get(), "alerts", arrived.alerts);
  AddMember(result.get(), "pcap_messages", arrived.pcap_messages);
  AddMember(result.get(), "captures", arrived.captures);
  AddMember(result.get(), "captures_with_bytes", arrived.captures_with_bytes);
  AddMember(result.get(), "bytes", arrived.bytes);
  return result;
}

Json StateJson(const IdsPeers& peers) {
  const DetectionProcess::Counters sent = peers.detection.counters();
  Json result = JsonObject();
  AddMember(result.get(), "alerts", sent.alerts);
  AddMember(result.get(), "notices", sent.notices);
  AddMember(result.get(), "other_lines", sent.other_lines);
  AddMember(result.get(), "refused", sent.refused);
  const LogCollector::State logged = peers.logger.state();
  AddMember(result.get(), "logger_runs", logged.running);
  AddMember(result.get(), "logger_connections", logged.connections);
  AddMember(result.get(), "logged_lines", logged.lines);
  return result;
}

Json Taken(uint64_t count) {
  Json result = JsonObject();
  AddMember(result.get(), "taken", count);
  return result;
}

// "--count N" and the like; false when the word is no number.
template <class Number>
bool Take(const CommandOptions& options, const char* name, Number* number) {
  const auto text = options.Value(name);
  if (!text) return true;
  const auto value = NumberOf<Number>(*text);
  if (value) *number = *value;
  return value.has_value();
}

void Alert(const IdsPeers& peers, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments,
                               {"--count", "--src", "--dest", "--sport", "--dport", "--signature",
                                "--severity", "--vm", "--user-key", "--rule", "--flow", "--snip"},
                               {});
  if (!options.error().empty()) return reply.Fail(options.error());
  AlertSpec alert;
  uint64_t count = 1;
  if (!Take(options, "--count", &count) || !Take(options, "--sport", &alert.source_port) ||
      !Take(options, "--dport", &alert.destination_port) ||
      !Take(options, "--signature", &alert.signature_id) || !Take(options, "--severity", &alert.severity) ||
      !Take(options, "--rule", &alert.rule_id) || !Take(options, "--flow", &alert.flow_id) ||
      !Take(options, "--snip", &alert.snip_ts_us))
    return reply.Fail("not a number");
  alert.source = options.Value("--src").value_or(alert.source);
  alert.destination = options.Value("--dest").value_or(alert.destination);
  alert.vm_uuid = options.Value("--vm").value_or(alert.vm_uuid);
  if (const auto key = options.Value("--user-key")) alert.user_id = zem::jhash32(*key);
  reply.Ok(Taken(peers.detection.SendAlerts(alert, count)));
}

void Burst(const IdsPeers& peers, const Arguments& arguments, const Reply& reply) {
  const auto count = NumberOf<uint64_t>(arguments[0]);
  const auto seed = NumberOf<uint32_t>(arguments.size() > 1 ? arguments[1] : "1");
  if (!count || !seed) return reply.Fail("not a number");
  reply.Ok(Taken(peers.detection.SendBurst(*count, *seed)));
}

void Snip(const IdsPeers& peers, const Arguments& arguments, const Reply& reply) {
  const auto flow = NumberOf<uint64_t>(arguments[0]);
  const auto snip = NumberOf<uint64_t>(arguments[1]);
  const auto packets = NumberOf<uint32_t>(arguments.size() > 2 ? arguments[2] : "5");
  if (!flow || !snip || !packets) return reply.Fail("not a number");
  reply.Ok(Taken(peers.detection.SendCapture(*flow, *snip, *packets) ? 1 : 0));
}

std::string PathOf(const std::string& file) {
  return file.find('/') == std::string::npos ? DataFolder::Get().scenarios + '/' + file : file;
}

void Received(const IdsPeers& peers, const Reply& reply) {
  Json result = ArrivedJson(peers.ledger.arrived());
  Json newest = JsonArray();
  for (const std::string& text : peers.services.Newest(kShown))
    AddItem(newest.get(), Json(cJSON_Parse(text.c_str())));
  AddMember(result.get(), "newest", std::move(newest));
  reply.Ok(std::move(result));
}

// What the brokers hold is read anew each time, and may be there twice after a broker's outage.
void Kafka(const IdsPeers& peers, const Reply& reply) {
  IdsLedger::Arrived arrived;
  for (const std::string& bytes : peers.read_topic("ids-data")) {
    orlane::zem::context::ids::EventInfoMsg message;
    if (!message.ParseFromString(bytes) || message.event_info_size() == 0 || !message.has_node_id())
      return reply.Fail("a message in \"ids-data\" is none of alerts");
    ++arrived.messages;
    arrived.entries += static_cast<uint64_t>(message.event_info_size());
    for (const auto& info : message.event_info()) arrived.alerts += info.count();
  }
  for (const std::string& bytes : peers.read_topic("ids-data-pcap")) {
    orlane::zem::context::ids::PcapInfoMsg message;
    if (!message.ParseFromString(bytes) || message.pcap_size() == 0)
      return reply.Fail("a message in \"ids-data-pcap\" is none of captures");
    ++arrived.pcap_messages;
    for (const auto& pcap : message.pcap()) {
      ++arrived.captures;
      arrived.captures_with_bytes += pcap.has_data() ? 1 : 0;
      arrived.bytes += pcap.data().size();
    }
  }
  reply.Ok(ArrivedJson(arrived));
}

struct ReadingName {
  const char* name;
  LogCollector::Reading reading;
};
constexpr std::array kReadings = {ReadingName{"fast", LogCollector::Reading::kFast},
                                  ReadingName{"slow", LogCollector::Reading::kSlow},
                                  ReadingName{"not", LogCollector::Reading::kNot}};

void RegisterLoggerCommands(CommandTable& table, LogCollector& logger) {
  LogCollector* const l = &logger;
  table.Register({"logger/start", "", "Starts the logger behind the external log's socket.", 0, 0,
                  [l](const Arguments&, const Reply& reply) {
                    const std::string error = l->Start();
                    if (!error.empty()) return reply.Fail(error);
                    reply.Ok();
                  }});
  table.Register({"logger/stop", "", "Ends the logger, with its connection and its socket.", 0, 0,
                  [l](const Arguments&, const Reply& reply) {
                    if (!l->Stop()) return reply.Fail("the logger does not run");
                    reply.Ok();
                  }});
  table.Register({"logger/read", "fast|slow|not", "How the logger reads: slowly is 1000 bytes a second.", 1,
                  1, [l](const Arguments& arguments, const Reply& reply) {
                    for (const ReadingName& row : kReadings) {
                      if (arguments[0] != row.name) continue;
                      l->SetReading(row.reading);
                      return reply.Ok();
                    }
                    reply.Fail("fast, slow or not");
                  }});
  table.Register({"logger/lines", "[MOST]", "The newest lines that the logger got.", 0, 1,
                  [l](const Arguments& arguments, const Reply& reply) {
                    const auto most = NumberOf<size_t>(arguments.empty() ? "20" : arguments[0]);
                    if (!most) return reply.Fail("not a number");
                    Json lines = JsonArray();
                    for (const std::string& line : l->Lines(*most)) AddItem(lines.get(), line);
                    reply.Ok(std::move(lines));
                  }});
}

}  // namespace

void RegisterIdsCommands(CommandTable& table, IdsPeers peers) {
  const auto shared = std::make_shared<const IdsPeers>(std::move(peers));
  table.Register({"alert",
                  "[--count N] [--src IP] [--dest IP] [--sport N] [--dport N] [--signature N] [--severity N] "
                  "[--vm UUID] [--user-key KEY] [--rule N] [--flow N] [--snip US]",
                  "The detection process announces alerts that are alike.", 0, kMany,
                  [shared](const Arguments& a, const Reply& r) { Alert(*shared, a, r); }});
  table.Register({"burst", "COUNT [SEED]", "Announces alerts of many signatures, guests and attackers.", 1, 2,
                  [shared](const Arguments& a, const Reply& r) { Burst(*shared, a, r); }});
  table.Register(
      {"snip", "FLOW MICROSECONDS [PACKETS]",
       "Writes a capture (5 packets) and announces it; 0 packets: announces one that is not there.", 2, 3,
       [shared](const Arguments& a, const Reply& r) { Snip(*shared, a, r); }});
  table.Register({"replay", "FILE",
                  "Announces each line of a file of alerts and captures; a name alone is a scenario's file.",
                  1, 1, [shared](const Arguments& a, const Reply& r) {
                    r.Ok(Taken(shared->detection.Replay(PathOf(a[0]))));
                  }});
  table.Register(
      {"garbage", "", "Sends lines that no alert can be read from.", 0, 0,
       [shared](const Arguments&, const Reply& r) { r.Ok(Taken(shared->detection.SendGarbage())); }});
  table.Register({"state", "", "What the detection process sent and the logger got.", 0, 0,
                  [shared](const Arguments&, const Reply& r) { r.Ok(StateJson(*shared)); }});
  table.Register({"received", "", "What the manager got, with the newest entries of alerts.", 0, 0,
                  [shared](const Arguments&, const Reply& r) { Received(*shared, r); }});
  table.Register({"kafka", "", "What the brokers hold of alerts and captures.", 0, 0,
                  [shared](const Arguments&, const Reply& r) { Kafka(*shared, r); }});
  RegisterLoggerCommands(table, shared->logger);
}

std::vector<std::string> DrawIds(const IdsPeers& peers) {
  const DetectionProcess::Counters sent = peers.detection.counters();
  if (sent.alerts + sent.notices + sent.refused == 0) return {};
  const IdsLedger::Arrived arrived = peers.ledger.arrived();
  const LogCollector::State logged = peers.logger.state();
  return {"ids: " + std::to_string(sent.alerts) + " alerts and " + std::to_string(sent.notices) +
              " captures announced, " + std::to_string(sent.refused) + " lines refused",
          "ids: the manager has " + std::to_string(arrived.alerts) + " alerts in " +
              std::to_string(arrived.entries) + " entries, and " + std::to_string(arrived.captures) +
              " captures (" + std::to_string(arrived.captures_with_bytes) + " with their bytes)",
          "ids: the logger " + std::string(logged.running ? "runs" : "is away") + ", " +
              std::to_string(logged.lines) + " lines"};
}

}  // namespace zem::sim
