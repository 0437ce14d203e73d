#include "sim/capture/capture_commands.h"

#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "sim/capture/capture_file.h"
#include "sim/capture/capture_tools.h"
#include "sim/control/command_options.h"
#include "sim/control/number.h"

namespace zem::sim::capture {
namespace {

using A = const Arguments&;
using R = const Reply&;

constexpr size_t kMany = 20;
constexpr unsigned kMostPerSecond = 100'000;

struct SignalName {
  const char* name;
  int number;
};
constexpr std::array kSignals = {SignalName{"INT", SIGINT}, SignalName{"TERM", SIGTERM},
                                 SignalName{"KILL", SIGKILL}, SignalName{"STOP", SIGSTOP},
                                 SignalName{"CONT", SIGCONT}};

template <class Number>
Number NumberFor(const CommandOptions& options, const char* name, Number otherwise) {
  const auto text = options.Value(name);
  if (!text) return otherwise;
  const auto number = zem::sim::NumberOf<Number>(*text);
  if (!number) throw std::runtime_error(std::string(name) + " takes a number");
  return *number;
}

CommandOptions TrafficOptions(A arguments) {
  CommandOptions options(arguments, {"--count", "--size", "--src", "--dst", "--port", "--vlan"}, {"--to"});
  if (!options.error().empty()) throw std::runtime_error(options.error());
  if (options.positional().empty()) throw std::runtime_error("a capture point is needed");
  return options;
}

Frame FrameOf(const CommandOptions& options) {
  Frame frame;
  frame.source = options.Value("--src").value_or(frame.source);
  frame.destination = options.Value("--dst").value_or(frame.destination);
  frame.port = NumberFor<uint16_t>(options, "--port", frame.port);
  frame.vlan = NumberFor<uint16_t>(options, "--vlan", 0);
  frame.size = NumberFor<uint32_t>(options, "--size", 100);
  return frame;
}

// 1-10,12: what a person can compare.
std::string Ranges(const std::vector<int64_t>& numbers) {
  std::string text;
  for (size_t i = 0; i < numbers.size();) {
    size_t last = i;
    while (last + 1 < numbers.size() && numbers[last + 1] == numbers[last] + 1) ++last;
    text += (text.empty() ? "" : ",") + std::to_string(numbers[i]);
    if (last > i) text += "-" + std::to_string(numbers[last]);
    i = last + 1;
  }
  return text;
}

Json TextList(const std::vector<std::string>& lines) {
  Json list = JsonArray();
  for (const std::string& line : lines) AddItem(list.get(), line);
  return list;
}

Json RunList(const std::vector<ToolRun>& runs, const std::string& tool) {
  Json list = JsonArray();
  for (const ToolRun& run : runs) {
    if (!tool.empty() && run.tool != tool) continue;
    Json item = JsonObject();
    AddMember(item.get(), "tool", run.tool);
    AddMember(item.get(), "pid", static_cast<int64_t>(run.pid));
    std::string words;
    for (const std::string& word : run.words) words += (words.empty() ? "" : " ") + word;
    AddMember(item.get(), "words", words);
    AddItem(list.get(), std::move(item));
  }
  Json result = JsonObject();
  AddMember(result.get(), "count", cJSON_GetArraySize(list.get()));
  AddMember(result.get(), "list", std::move(list));
  return result;
}

Json FileJson(const CaptureFile& file) {
  Json result = JsonObject();
  AddMember(result.get(), "packets", file.packets);
  AddMember(result.get(), "encapsulation", file.encapsulation);
  AddMember(result.get(), "cut_short", file.cut_short);
  AddMember(result.get(), "longest", file.longest);
  AddMember(result.get(), "numbers", Ranges(file.numbers));
  return result;
}

Json ReceiverJson(const GreReceiver::State& state) {
  Json result = JsonObject();
  AddMember(result.get(), "datagrams", state.datagrams);
  AddMember(result.get(), "malformed", state.malformed);
  Json keys = JsonObject();
  for (const auto& [key, count] : state.keys) AddMember(keys.get(), key.c_str(), count);
  AddMember(result.get(), "keys", std::move(keys));
  AddMember(result.get(), "numbers", Ranges(state.numbers));
  return result;
}

void Receive(CaptureHost& host, A arguments, R reply) {
  const std::lock_guard lock(host.mutex);
  if (arguments[0] == "start") {
    host.receiver.reset();
    host.receiver = std::make_unique<GreReceiver>();
    return reply.Ok();
  }
  if (!host.receiver) return reply.Fail("there is no receiver");
  if (arguments[0] == "stop") {
    host.receiver.reset();
    return reply.Ok();
  }
  if (arguments[0] != "state") return reply.Fail("start, state or stop");
  reply.Ok(ReceiverJson(host.receiver->state()));
}

void SignalTool(A arguments, R reply) {
  const auto signal = std::find_if(kSignals.begin(), kSignals.end(),
                                   [&](const SignalName& s) { return arguments[1] == s.name; });
  if (signal == kSignals.end()) return reply.Fail("no signal " + arguments[1]);
  const auto pids = Running(arguments[0]);
  if (pids.empty()) return reply.Fail("no process of " + arguments[0]);
  for (const pid_t pid : pids) {
    if (::kill(pid, signal->number) != 0) return reply.Fail(std::strerror(errno));
  }
  Json result = JsonObject();
  AddMember(result.get(), "count", static_cast<uint64_t>(pids.size()));
  reply.Ok(std::move(result));
}

}  // namespace

void RegisterCaptureCommands(CommandTable& table, CaptureHost& host) {
  CaptureHost* const h = &host;
  table.Register(
      {"inject", "[--to] [--count N] [--size BYTES] [--src IP] [--dst IP] [--port N] [--vlan N] POINT",
       "Sends UDP packets (one) as the guest at a capture point does, VM.DEVICE or KIND:NAME, or to that "
       "guest; shows the first and last of their numbers.",
       1, kMany, [h](A a, R reply) {
         const CommandOptions options = TrafficOptions(a);
         const auto count = NumberFor<uint32_t>(options, "--count", 1);
         const uint64_t first =
             h->traffic.Inject(options.positional()[0], FrameOf(options), count, options.Has("--to"));
         Json result = JsonObject();
         AddMember(result.get(), "first", first);
         AddMember(result.get(), "last", first + count - 1);
         reply.Ok(std::move(result));
       }});
  table.Register({"flow",
                  "[--size BYTES] [--src IP] [--dst IP] [--port N] [--vlan N] POINT PER_SECOND | stop",
                  "Sends packets all the time, or ends all of that.", 1, kMany, [h](A a, R reply) {
                    if (a.size() == 1 && a[0] == "stop") {
                      h->traffic.StopFlows();
                      return reply.Ok();
                    }
                    const CommandOptions options = TrafficOptions(a);
                    const auto& words = options.positional();
                    const auto rate = NumberOf<unsigned>(words.size() > 1 ? words[1] : "100");
                    if (!rate || *rate == 0 || *rate > kMostPerSecond) return reply.Fail("not a rate");
                    h->traffic.StartFlow(words[0], FrameOf(options), *rate);
                    reply.Ok();
                  }});
  table.Register({"file", "PATH", "Shows what capinfos and tshark find in a capture file.", 1, 1,
                  [](A a, R reply) { reply.Ok(FileJson(ReadCaptureFile(a[0]))); }});
  table.Register(
      {"mode", "TOOL [WORD...]",
       "How a tool behaves: pktcap-uw die|hang|deaf|deaf-early|packets N|replay FILE|idle, tcpdump-uw "
       "die|deaf|replay FILE, find_portid hang|delay S|garbage|exit N, knlctlProxy "
       "header|half|exit|hang|refuse; nothing more: well.",
       1, 3, [](A a, R reply) {
         SetMode(a[0], {a.begin() + 1, a.end()});
         reply.Ok();
       }});
  table.Register({"runs", "[TOOL]", "Shows the starts of the tools with their arguments.", 0, 1,
                  [](A a, R reply) { reply.Ok(RunList(Runs(), a.empty() ? "" : a[0])); }});
  table.Register({"signals", "", "Shows the signals that the filter tool got.", 0, 0,
                  [](A, R reply) { reply.Ok(RunList(Signals(), "")); }});
  table.Register({"forget", "", "Forgets starts and signals, and ends all modes.", 0, 0, [](A, R reply) {
                    ForgetRuns();
                    ClearModes();
                    reply.Ok();
                  }});
  table.Register({"running", "TOOL", "Shows how many processes of a tool there are.", 1, 1, [](A a, R reply) {
                    Json result = JsonObject();
                    AddMember(result.get(), "count", static_cast<uint64_t>(Running(a[0]).size()));
                    reply.Ok(std::move(result));
                  }});
  table.Register({"signal", "TOOL INT|TERM|KILL|STOP|CONT", "Sends a signal to all processes of a tool.", 2,
                  2, [](A a, R reply) { SignalTool(a, reply); }});
  table.Register({"leftovers", "",
                  "Shows tools, pipes and temporary files that are there; without a capture there are none.",
                  0, 0, [](A, R reply) {
                    const auto lines = Leftovers();
                    Json result = JsonObject();
                    AddMember(result.get(), "count", static_cast<uint64_t>(lines.size()));
                    AddMember(result.get(), "lines", TextList(lines));
                    reply.Ok(std::move(result));
                  }});
  table.Register({"receiver", "start|state|stop",
                  "The remote receiver of captures, on all addresses of the node: what it got, by GRE key.",
                  1, 1, [h](A a, R reply) { Receive(*h, a, reply); }});
}

std::vector<std::string> DrawCapture() {
  const size_t tools = Running("pktcap-uw").size();
  if (tools == 0) return {};
  return {"captures: " + std::to_string(tools)};
}

}  // namespace zem::sim::capture
