#include "sim/node/corvd_commands.h"

#include <google/protobuf/text_format.h>

#include <charconv>
#include <cstring>
#include <limits>
#include <optional>

#include "proto/switching/switching.pb.h"
#include "sim/control/command_options.h"
#include "sim/control/command_table.h"
#include "sim/control/hex.h"
#include "sim/node/host_management.h"
#include "sim/node/raw_sockets.h"

namespace zem::sim {
namespace {

constexpr const char* kVnicSocket = "/etc/orlane/zemaVifDvp";

// False when the option is there and no number.
bool TakeNumber(const CommandOptions& options, const char* name, uint32_t* number) {
  const auto text = options.Value(name);
  if (!text) return true;
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), *number);
  return error == std::errc() && end == text->data() + text->size();
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
  table.Register({"host-management", "[start|stop]",
                  "The host management daemon's socket: shows, opens, closes it.", 0, 1,
                  [d](const Arguments& arguments, const Reply& reply) {
                    if (!arguments.empty() && arguments[0] != "start" && arguments[0] != "stop") {
                      return reply.Fail("start or stop");
                    }
                    if (!arguments.empty()) arguments[0] == "start" ? d->Start() : d->Stop();
                    Show(*d, reply);
                  }});
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
