#include "app/pktcap/service/pktcap_commands.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "app/pktcap/service/capture_points.h"
#include "app/pktcap/service/capture_sessions.h"
#include "app/pktcap/service/pktcap_app.h"
#include "framework/cli/json_writer.h"
#include "framework/node/platform_info.h"
#include "proto/packetcapture/packetcapture.pb.h"

namespace zem::Tarvik {
namespace {

using orlane::zem::packetcapture::PktCapRequestMsg;

constexpr const char* kNotRunning = "Not running";
constexpr const char* kNotFound = "Session not found";
constexpr uint32_t kDefaultDuration = 600;
constexpr unsigned kDefaultSnapLength = 65'535;
// The places of the arguments of a start.
enum Place : size_t { kId, kType, kName, kDirWord, kDirection, kMode, kTarget, kDashes, kPairs };

struct NodeFlags {
  uint32_t node;
  std::array<const char*, 3> names;
};
constexpr std::array kNodeFlags = {
    NodeFlags{kNodeManager, {"IS_MANAGER_NODE", "IS_CLUSTER_NODE"}},
    NodeFlags{kNodeKvm, {"IS_KVM_PLATFORM", "IS_FABRIC_NODE"}},
    NodeFlags{kNodeEdge, {"IS_EDGE_PLATFORM", "IS_FABRIC_NODE"}},
    NodeFlags{kNodePublicCloudGateway, {"IS_PCG", "IS_EDGE_PLATFORM", "IS_FABRIC_NODE"}},
    NodeFlags{kNodePolicyManager, {"IS_POLICY_MANAGER_NODE", "IS_CLUSTER_NODE"}},
    NodeFlags{kNodeController, {"IS_CONTROLLER_NODE", "IS_CLUSTER_NODE"}},
};

struct WordNumber {
  std::string_view word;
  uint32_t number;
};
constexpr std::array kDirections = {
    WordNumber{"in", 1},   WordNumber{"input", 1},          WordNumber{"rx", 1},
    WordNumber{"out", 2},  WordNumber{"output", 2},         WordNumber{"tx", 2},
    WordNumber{"dual", 3}, WordNumber{"inputAndOutput", 3}, WordNumber{"bidirection", 3},
};
constexpr std::array kModes = {
    WordNumber{"file", kFileMode},
    WordNumber{"stream-to", kStreamMode},
    WordNumber{"remote", kStreamMode},
};

template <size_t kSize>
uint32_t NumberOf(const std::array<WordNumber, kSize>& words, const std::string& word) {
  const auto found =
      std::find_if(words.begin(), words.end(), [&word](const WordNumber& w) { return w.word == word; });
  return found == words.end() ? 0 : found->number;
}

std::string BadArgument(const std::string& word, const char* expected) {
  return "Bad argument: \"" + word + "\" Expected: \"" + expected + "\"";
}

bool IsAddress(const std::string& text) {
  in6_addr address;
  return ::inet_pton(AF_INET6, text.c_str(), &address) == 1 ||
         ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

struct LimitField {
  std::string_view name;
  void (*set)(PktCapRequestMsg* request, int value);
};
constexpr std::array kLimitFields = {
    LimitField{"duration",
               [](PktCapRequestMsg* r, int value) { r->set_cap_duration(static_cast<uint32_t>(value)); }},
    LimitField{"amount",
               [](PktCapRequestMsg* r, int value) { r->set_max_packets(static_cast<uint32_t>(value)); }},
    LimitField{"rate",
               [](PktCapRequestMsg* r, int value) { r->set_packet_rate(static_cast<uint32_t>(value)); }},
    LimitField{"snaplen",
               [](PktCapRequestMsg* r, int value) { r->set_snap_length(static_cast<uint32_t>(value)); }},
};

void AddPair(const std::string& name, const std::string& value, PktCapRequestMsg* request) {
  const auto field = std::find_if(kLimitFields.begin(), kLimitFields.end(),
                                  [&name](const LimitField& f) { return f.name == name; });
  if (field != kLimitFields.end()) {
    field->set(request, std::max(0, std::atoi(value.c_str())));
    return;
  }
  auto* const parameter = request->add_param();
  parameter->set_name(name);
  parameter->set_value(value);
}

// Reads the arguments of a start in their order.  Returns what is wrong with them.
std::string ParseStart(const CliArguments& words, PktCapRequestMsg* request, std::string* file) {
  request->set_cap_duration(kDefaultDuration);
  request->set_cap_type(CapturePointType(words[kType]));
  request->set_cap_value(words[kName]);
  if (words[kDirWord] != "dir") return BadArgument(words[kDirWord], "dir");
  const uint32_t direction = NumberOf(kDirections, words[kDirection]);
  if (direction == 0) return BadArgument(words[kDirection], "<input|output|dual>");
  request->set_direction(direction);
  const uint32_t mode = NumberOf(kModes, words[kMode]);
  if (mode == 0) return BadArgument(words[kMode], "<file|stream-to>");
  request->set_cap_mode(mode);
  const std::string& target = words[kTarget];
  if (mode == kFileMode) {
    struct stat facts {};
    if (::lstat(target.c_str(), &facts) == 0) return "File " + target + " has existed";
    *file = target;
  } else {
    if (!IsAddress(target)) return "Invalid Remote Ip: " + target;
    request->set_stream_address(target);
    request->set_stream_port(0);
  }
  if (words.size() <= kDashes) return {};
  if (words[kDashes] != "--") return BadArgument(words[kDashes], "--");
  for (size_t i = kPairs; i + 1 < words.size(); i += 2) AddPair(words[i], words[i + 1], request);
  return {};
}

const char* StateWord(SessionState state) {
  switch (state) {
    case SessionState::kRunning:
      return "running";
    case SessionState::kCaptured:
      return "captured";
    case SessionState::kDone:
      return "done";
    case SessionState::kFailed:
      return "failed";
  }
  return "unknown";
}

// The members of a session in an answer.  Operators' and programs' commands tell the same in other words.
struct SessionNames {
  const char* id;
  const char* type;
  const char* interface;
  const char* duration;
};
constexpr SessionNames kOperatorNames{"sessionId", "interfaceType", "interfaceName", "duration"};
constexpr SessionNames kProgramNames{"id", "interface_type", "interface", "seconds"};

// All but the state, which comes last.
JsonValue SessionFacts(const SessionView& session, const SessionNames& names) {
  const PktCapRequestMsg& request = session.request;
  const CapturePoint* const point = FindCapturePoint(request.cap_type());
  const char* const direction = DirectionWord(request.direction());
  const bool stream = request.cap_mode() == kStreamMode;
  JsonValue json = JsonValue::Object();
  json.Add(names.id, session.id)
      .Add(names.type, point != nullptr ? point->parameter : "")
      .Add(names.interface, request.cap_value())
      .Add("direction", direction != nullptr ? direction : "")
      .Add("mode", stream ? "stream" : "file")
      .Add("target", stream ? request.stream_address() : session.destination)
      .Add(names.duration, request.cap_duration());
  return json;
}

JsonValue SessionJson(const SessionView& session) {
  JsonValue json = SessionFacts(session, kOperatorNames);
  json.Add("state", static_cast<unsigned>(session.state));
  return json;
}

void Status(PktCapApp& app, CliReply reply) {
  const auto shared = std::make_shared<CliReply>(std::move(reply));
  const bool taken = app.RunAside([&app, shared] {
    const bool probe = !FindVProbeProcess(app.tools(), app.aside_stop()).empty();
    shared->Ok(CaptureStatusText(app.running(), probe));
  });
  if (!taken) shared->Error("Busy");
}

void StartCapture(PktCapApp& app, const CliArguments& words, CliReply reply) {
  PktCapRequestMsg request;
  std::string file;
  if (std::string wrong = ParseStart(words, &request, &file); !wrong.empty()) {
    return reply.Error(std::move(wrong));
  }
  app.StartLocal(words[kId], request, file,
                 [shared = std::make_shared<CliReply>(std::move(reply))](std::string error,
                                                                         std::optional<SessionView> session) {
                   session ? shared->Ok(SessionJson(*session).Text()) : shared->Error(std::move(error));
                 });
}

void ListSessions(PktCapApp& app, CliReply reply) {
  JsonValue list = JsonValue::Array();
  for (const SessionView& session : app.List()) list.Append(SessionJson(session));
  reply.Ok(list.Text());
}

// The same for programs that want names of their own kind, also while the application does not run.
void GetCaptures(PktCapApp& app, CliReply reply) {
  JsonValue list = JsonValue::Array();
  if (app.running()) {
    for (const SessionView& session : app.List()) {
      JsonValue row = SessionFacts(session, kProgramNames);
      row.Add("state", StateWord(session.state));
      list.Append(std::move(row));
    }
  }
  JsonValue answer = JsonValue::Object();
  answer.Add("running", app.running()).Add("captures", std::move(list));
  reply.Ok(answer.Text());
}

void GetSession(PktCapApp& app, const std::string& id, CliReply reply) {
  const auto session = app.Find(id);
  session ? reply.Ok(SessionJson(*session).Text()) : reply.Error(kNotFound);
}

}  // namespace

std::string CaptureStatusText(bool running, bool probe_running) {
  JsonValue json = JsonValue::Object();
  json.Add("RUNNING_STATUS", running);
  const uint32_t node = GetNodeType();
  if (node == kNodeQub) {
    json.Add("IS_QUB_PLATFORM", true).Add("IS_QUB_65", IsVersion65()).Add("IS_FABRIC_NODE", true);
  }
  for (const NodeFlags& flags : kNodeFlags) {
    if (flags.node != node) continue;
    for (const char* const name : flags.names) {
      if (name != nullptr) json.Add(name, true);
    }
  }
  json.Add("IS_IPV6_FILTER_CAPABLE", CaptureParameters::Exists("ip6", node))
      .Add("MAX_PACKET_CAPTURE_SESSIONS", static_cast<unsigned>(CaptureSessions::kMostSessions))
      .Add("DEFAULT_SNAPLEN", kDefaultSnapLength)
      .Add("VPROBE_RUNNING", probe_running);
  return json.Text();
}

std::vector<CliCommand> PktCapCommands(PktCapApp& app) {
  // Without the application there is nothing to be asked.
  const auto when_running = [&app](auto command) {
    return [&app, command](const CliArguments& words, CliReply reply) {
      if (!app.running()) return reply.Error(kNotRunning);
      command(words, std::move(reply));
    };
  };
  return {
      {"packet-capture/status", "", 0, 0,
       [&app](const CliArguments&, CliReply reply) { Status(app, std::move(reply)); }},
      {"packet-capture/query", "[interface type]", 0, 1,
       [](const CliArguments&, CliReply reply) { reply.Error("Not implemented"); }},
      {"packet-capture/list", "", 0, 0,
       when_running([&app](const CliArguments&, CliReply reply) { ListSessions(app, std::move(reply)); })},
      {"get/captures", "", 0, 0,
       [&app](const CliArguments&, CliReply reply) { GetCaptures(app, std::move(reply)); }},
      {"packet-capture/get", "<session-id>", 1, 1,
       when_running([&app](const CliArguments& words, CliReply reply) {
         GetSession(app, words[kId], std::move(reply));
       })},
      {"packet-capture/start",
       "<session-id> <interface-type> <interface-name> dir <direction> file <file-name> [-- expression]", 7,
       CliCommand::kNoLimit, when_running([&app](const CliArguments& words, CliReply reply) {
         StartCapture(app, words, std::move(reply));
       })},
      {"packet-capture/stop", "<session-id>", 1, 1,
       when_running([&app](const CliArguments& words, CliReply reply) {
         app.StopLocal(words[kId]) ? reply.Ok("OK") : reply.Error(kNotFound);
       })},
  };
}

}  // namespace zem::Tarvik
