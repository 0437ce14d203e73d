#include "sim/host/corvd_commands.h"

#include <google/protobuf/text_format.h>

#include <atomic>
#include <cstring>
#include <limits>
#include <optional>

#include "platform/core/clock.h"
#include "platform/core/thread.h"
#include "proto/switching/switching.pb.h"
#include "sim/control/command_options.h"
#include "sim/control/command_table.h"
#include "sim/control/hex.h"
#include "sim/control/number.h"
#include "sim/host/host_management.h"
#include "sim/host/raw_sockets.h"

namespace zem::sim {
namespace {

constexpr auto kPatience = std::chrono::seconds(60);
constexpr const char* kVnicSocket = "/etc/orlane/zemaVifDvp";

// Returns false when the option is given but is not a number.
bool TakeNumber(const CommandOptions& options, const char* name, uint32_t* number) {
  const auto text = options.Value(name);
  if (!text) return true;
  const auto read = NumberOf<uint32_t>(*text);
  if (read) *number = *read;
  return read.has_value();
}

void Show(const HostManagement& daemon, const Reply& reply) {
  const HostManagement::State state = daemon.state();
  Json result = JsonObject();
  AddMember(result.get(), "listening", state.listening);
  AddMember(result.get(), "connected", state.connected);
  AddMember(result.get(), "reading", state.reading);
  AddMember(result.get(), "connections", state.connections);
  reply.Ok(std::move(result));
}

void Texts(const std::vector<std::string>& texts, const Reply& reply) {
  Json result = JsonObject();
  Json list = JsonArray();
  for (const std::string& text : texts) AddItem(list.get(), text);
  AddMember(result.get(), "count", static_cast<uint64_t>(texts.size()));
  AddMember(result.get(), "list", std::move(list));
  reply.Ok(std::move(result));
}

void Ask(HostManagement& daemon, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(
      arguments, {"--opcode", "--ls", "--gcf", "--magic", "--version", "--piece", "--count"}, {"--bare"});
  if (!options.error().empty()) return reply.Fail(options.error());
  if (options.positional().size() != 2) return reply.Fail("an operation id and a VIF");
  HostManagement::Operation operation;
  operation.vif = options.positional()[1];
  operation.ls = options.Value("--ls").value_or("");
  operation.gcf_path = options.Value("--gcf").value_or("");
  operation.payload = !options.Has("--bare");
  uint32_t piece = 0;
  uint32_t count = 1;
  if (!TakeNumber(options, "--opcode", &operation.opcode) ||
      !TakeNumber(options, "--magic", &operation.magic) ||
      !TakeNumber(options, "--version", &operation.version) || !TakeNumber(options, "--piece", &piece) ||
      !TakeNumber(options, "--count", &count)) {
    return reply.Fail("no number");
  }
  const std::string& op_id = options.positional()[0];
  for (uint32_t i = 0; i < count; ++i) {
    operation.op_id = count == 1 ? op_id : op_id + "-" + std::to_string(i);
    if (!daemon.Ask(operation, piece)) return reply.Fail("nobody is connected, or takes it");
  }
  reply.Ok();
}

void Control(HostManagement& daemon, const Arguments& arguments, const Reply& reply) {
  const std::string word = arguments.empty() ? "" : arguments[0];
  if (word == "restart") {
    const std::string text = arguments.size() > 1 ? arguments[1] : "1";
    const auto seconds = NumberOf<uint32_t>(text);
    if (!seconds) return reply.Fail("no number: " + text);
    NativeThread::Options options;
    options.detached = true;
    const NativeThread started(std::move(options), [&daemon, seconds = *seconds, reply] {
      daemon.Stop();
      SleepFor(std::chrono::seconds(seconds));
      daemon.Start();
      Show(daemon, reply);
    });
    return;
  }
  if (arguments.size() > 1 || (!word.empty() && word != "start" && word != "stop")) {
    return reply.Fail("start, stop or restart");
  }
  if (!word.empty()) word == "start" ? daemon.Start() : daemon.Stop();
  Show(daemon, reply);
}

// Requests many operations that change nothing, one after the other, while no answer is read.
void Burst(HostManagement& daemon, const Arguments& arguments, const Reply& reply) {
  constexpr uint32_t kIgnored = 9;
  constexpr uint32_t kMost = 100000;
  const uint32_t count = NumberOf<uint32_t>(arguments[0]).value_or(0);
  if (count == 0 || count > kMost) return reply.Fail("how many?");
  static std::atomic<uint64_t> bursts{0};
  const std::string stem = "burst-" + std::to_string(++bursts) + "-";
  NativeThread::Options options;
  options.detached = true;
  const NativeThread started(std::move(options), [&daemon, count, stem, reply] {
    HostManagement::Operation operation;
    operation.opcode = kIgnored;
    operation.gcf_path = "/burst/burst.cfg";
    daemon.SetReading(false);
    uint32_t sent = 0;
    for (; sent < count; ++sent) {
      operation.op_id = stem + std::to_string(sent);
      operation.vif = "burst-" + std::to_string(sent);
      if (!daemon.Ask(operation)) break;
    }
    daemon.SetReading(true);
    if (sent < count) return reply.Fail("taken: " + std::to_string(sent));
    uint64_t answered = 0;
    const TimePoint until = Clock::Process().Now() + kPatience;
    for (uint32_t i = 0; i < count; ++i) {
      if (daemon.WaitForAnswer(stem + std::to_string(i), until)) ++answered;
    }
    if (answered < count) return reply.Fail("answered: " + std::to_string(answered));
    Json result = JsonObject();
    AddMember(result.get(), "answered", answered);
    reply.Ok(std::move(result));
  });
}

void Answers(const HostManagement& daemon, const Reply& reply) {
  Json result = JsonObject();
  Json list = JsonArray();
  const auto answers = daemon.answers();
  for (const auto& answer : answers) {
    Json item = JsonObject();
    AddMember(item.get(), "op_id", answer.op_id);
    AddMember(item.get(), "status", answer.status);
    AddMember(item.get(), "text", answer.text);
    AddMember(item.get(), "connection", answer.connection);
    AddItem(list.get(), std::move(item));
  }
  AddMember(result.get(), "count", static_cast<uint64_t>(answers.size()));
  AddMember(result.get(), "list", std::move(list));
  reply.Ok(std::move(result));
}

void UpdateVnics(const std::string& text, const Reply& reply) {
  orlane::zem::switching::VifMsg message;
  if (!google::protobuf::TextFormat::ParseFromString(text, &message)) return reply.Fail("no VifMsg");
  const std::string data = message.SerializeAsString();
  const auto length = static_cast<int32_t>(data.size());
  std::string frame(sizeof(length), '\0');
  std::memcpy(frame.data(), &length, sizeof(length));
  const RawExchange exchange = ExchangeRaw(kVnicSocket, frame + data, true, std::chrono::seconds(5));
  if (!exchange.error.empty()) return reply.Fail(exchange.error);
  reply.Ok();
}

}  // namespace

void RegisterCorvdCommands(CommandTable& table, HostManagement& daemon) {
  HostManagement* const d = &daemon;
  table.Register(
      {"host-management", "[start|stop|restart [SECONDS]]",
       "The host management daemon's socket: shows, opens, closes it; restart leaves it closed for "
       "a while (1 second).",
       0, 2, [d](const Arguments& arguments, const Reply& reply) { Control(*d, arguments, reply); }});
  table.Register(
      {"corvd/send",
       "[--opcode N] [--ls LS] [--gcf PATH] [--magic N] [--version N] [--piece BYTES] [--count N] [--bare] "
       "OPID VIF",
       "Asks for a port operation (an attach), or for many with \"-N\" behind the id; --bare without "
       "payload.",
       2, std::numeric_limits<size_t>::max(),
       [d](const Arguments& arguments, const Reply& reply) { Ask(*d, arguments, reply); }});
  table.Register(
      {"corvd/raw", "HEX", "Sends bytes.", 1, 1, [d](const Arguments& arguments, const Reply& reply) {
         const auto bytes = FromHex(arguments[0]);
         if (!bytes) return reply.Fail("no hexadecimal digits");
         if (!d->SendRaw(*bytes)) return reply.Fail("nobody is connected, or takes it");
         reply.Ok();
       }});
  table.Register({"corvd/burst", "N",
                  "Asks for N operations that change nothing before it reads an answer, and waits for all.",
                  1, 1,
                  [d](const Arguments& arguments, const Reply& reply) { Burst(*d, arguments, reply); }});
  table.Register({"corvd/answers", "", "Shows all answers.", 0, 0,
                  [d](const Arguments&, const Reply& reply) { Answers(*d, reply); }});
  table.Register({"corvd/outstanding", "", "Shows what was asked on this connection and is not answered.", 0,
                  0, [d](const Arguments&, const Reply& reply) { Texts(d->outstanding(), reply); }});
  table.Register({"corvd/violations", "", "Shows the answers that break the rules.", 0, 0,
                  [d](const Arguments&, const Reply& reply) { Texts(d->violations(), reply); }});
  table.Register({"corvd/read", "on|off", "Reads the answers, or leaves them in the socket.", 1, 1,
                  [d](const Arguments& arguments, const Reply& reply) {
                    if (arguments[0] != "on" && arguments[0] != "off") return reply.Fail("on or off");
                    d->SetReading(arguments[0] == "on");
                    Show(*d, reply);
                  }});
  table.Register({"corvd/close", "", "Closes the connection and goes on listening.", 0, 0,
                  [d](const Arguments&, const Reply& reply) {
                    d->Drop();
                    Show(*d, reply);
                  }});
  table.Register({"corvd/vnic", "VIFMSG", "Sends a list of vNICs (text format) to the daemon's own socket.",
                  1, 1,
                  [](const Arguments& arguments, const Reply& reply) { UpdateVnics(arguments[0], reply); }});
}

}  // namespace zem::sim
