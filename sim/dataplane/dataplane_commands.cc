#include "sim/dataplane/dataplane_commands.h"

#include <google/protobuf/text_format.h>
#include <google/protobuf/util/json_util.h>

#include <optional>

#include "proto/lcp/lcp.pb.h"
#include "sim/control/command_options.h"
#include "sim/control/hex.h"
#include "sim/control/number.h"
#include "sim/dataplane/dataplane_agent.h"

namespace zem::sim {
namespace {

using orlane::zem::lcp::LcpDpMsg;

constexpr uint8_t kFragmentBit = 0x80;

std::optional<uint32_t> Number(const std::string& text, uint32_t most) {
  const auto number = NumberOf<uint32_t>(text);
  return number && *number <= most ? number : std::nullopt;
}

// Makes a frame around `body`; the options replace fields of the true header.  Returns an empty text and sets
// `error` when the options cannot be parsed.
std::string FrameOf(const CommandOptions& options, const std::string& body, std::string* error) {
  DataplaneHeader header;
  header.length = static_cast<uint32_t>(DataplaneHeader::kSize + body.size());
  const auto take = [&](const char* name, uint32_t most, auto* field) {
    const auto text = options.Value(name);
    if (!text) return;
    const auto number = Number(*text, most);
    if (!number) *error = std::string(name) + " takes a number up to " + std::to_string(most);
    *field = static_cast<std::remove_reference_t<decltype(*field)>>(number.value_or(0));
  };
  take("--type", UINT8_MAX, &header.type);
  take("--reserved", kFragmentBit - 1, &header.bits);
  take("--length", UINT32_MAX, &header.length);
  if (options.Has("--fragment")) header.bits |= kFragmentBit;
  return error->empty() ? header.Bytes() + body : std::string();
}

void Finish(const Reply& reply, const std::string& error) {
  if (error.empty()) {
    reply.Ok();
  } else {
    reply.Fail(error);
  }
}

void SendMessage(DataplaneAgent& agent, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--type", "--reserved", "--length"}, {"--fragment", "--bytewise"});
  std::string error = options.error();
  LcpDpMsg message;
  if (error.empty() && !google::protobuf::TextFormat::ParseFromString(options.Rest(0), &message)) {
    error = "no LcpDpMsg in text format";
  }
  if (!error.empty()) return reply.Fail(error);
  const std::string frame = FrameOf(options, message.SerializeAsString(), &error);
  Finish(reply, error.empty() ? agent.Send(frame, options.Has("--bytewise")) : error);
}

void SendFrame(DataplaneAgent& agent, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--type", "--reserved", "--length"}, {"--fragment", "--bytewise"});
  std::string error = options.error();
  const auto body = FromHex(options.Rest(0));
  if (error.empty() && !body) error = "the body is not pairs of hexadecimal digits";
  if (!error.empty()) return reply.Fail(error);
  const std::string frame = FrameOf(options, *body, &error);
  Finish(reply, error.empty() ? agent.Send(frame, options.Has("--bytewise")) : error);
}

void SendRaw(DataplaneAgent& agent, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {}, {"--bytewise"});
  if (!options.error().empty()) return reply.Fail(options.error());
  const auto bytes = FromHex(options.Rest(0));
  if (!bytes) return reply.Fail("not pairs of hexadecimal digits");
  Finish(reply, agent.Send(*bytes, options.Has("--bytewise")));
}

Json MessageJson(const std::string& body) {
  LcpDpMsg message;
  std::string text;
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  if (!message.ParseFromString(body) ||
      !google::protobuf::util::MessageToJsonString(message, &text, options).ok()) {
    return nullptr;
  }
  return Json(cJSON_Parse(text.c_str()));
}

void ShowReceived(const DataplaneAgent& agent, const Arguments& arguments, const Reply& reply) {
  const auto after = arguments.empty() ? 0 : Number(arguments[0], UINT32_MAX);
  if (!after) return reply.Fail("not a number: " + arguments[0]);
  Json frames = JsonArray();
  for (const DataplaneAgent::Frame& frame : agent.Received(*after)) {
    Json item = JsonObject();
    AddMember(item.get(), "number", frame.number);
    AddMember(item.get(), "fragment", (frame.header.bits & kFragmentBit) != 0);
    AddMember(item.get(), "reserved", frame.header.bits & ~kFragmentBit);
    AddMember(item.get(), "type", static_cast<int>(frame.header.type));
    AddMember(item.get(), "length", frame.header.length);
    if (Json message = MessageJson(frame.body)) {
      AddMember(item.get(), "message", std::move(message));
    } else {
      AddMember(item.get(), "body", ToHex(frame.body));
    }
    AddItem(frames.get(), std::move(item));
  }
  Json result = JsonObject();
  AddMember(result.get(), "count", static_cast<int64_t>(cJSON_GetArraySize(frames.get())));
  AddMember(result.get(), "frames", std::move(frames));
  reply.Ok(std::move(result));
}

Json StateJson(const DataplaneAgent& agent) {
  const DataplaneAgent::State state = agent.state();
  Json result = JsonObject();
  AddMember(result.get(), "path", state.path);
  AddMember(result.get(), "listening", state.listening);
  AddMember(result.get(), "connected", state.connected);
  AddMember(result.get(), "reading", state.reading);
  AddMember(result.get(), "connections", state.connections);
  AddMember(result.get(), "received", state.received);
  AddMember(result.get(), "last_end", state.last_end);
  return result;
}

}  // namespace

void RegisterDataplaneCommands(CommandTable& table, DataplaneAgent& agent) {
  constexpr size_t kMany = 1000;
  DataplaneAgent* const a = &agent;
  table.Register({"state", "", "Shows the socket, whether the daemon is connected, and what ended it last.",
                  0, 0, [a](const Arguments&, const Reply& reply) { reply.Ok(StateJson(*a)); }});
  table.Register(
      {"received", "[AFTER]", "Shows the frames that came, after a number if given.", 0, 1,
       [a](const Arguments& arguments, const Reply& reply) { ShowReceived(*a, arguments, reply); }});
  table.Register(
      {"send", "[--type N] [--reserved N] [--length N] [--fragment] [--bytewise] [TEXT]",
       "Sends a frame with an LcpDpMsg (text format); the header is true unless told otherwise.", 0, kMany,
       [a](const Arguments& arguments, const Reply& reply) { SendMessage(*a, arguments, reply); }});
  table.Register({"frame", "[--type N] [--reserved N] [--length N] [--fragment] [--bytewise] [HEX]",
                  "Sends a frame with any body; a length of its own makes a header without its body.", 0,
                  kMany,
                  [a](const Arguments& arguments, const Reply& reply) { SendFrame(*a, arguments, reply); }});
  table.Register({"raw", "[--bytewise] HEX", "Sends bytes as they are.", 1, 2,
                  [a](const Arguments& arguments, const Reply& reply) { SendRaw(*a, arguments, reply); }});
  table.Register({"close", "", "Closes the connection and takes the next.", 0, 0,
                  [a](const Arguments&, const Reply& reply) {
                    Finish(reply, a->CloseClient() ? "" : "nobody is connected");
                  }});
  table.Register({"read", "on|off", "While off, what the daemon sends is left in its socket.", 1, 1,
                  [a](const Arguments& arguments, const Reply& reply) {
                    if (arguments[0] != "on" && arguments[0] != "off") return reply.Fail("on or off");
                    a->SetReading(arguments[0] == "on");
                    reply.Ok();
                  }});
  table.Register({"die", "", "Ends the agent: connection and listener.", 0, 0,
                  [a](const Arguments&, const Reply& reply) {
                    a->Die();
                    reply.Ok();
                  }});
  table.Register({"return", "[PATH]", "Starts it again, at another socket if one is given.", 0, 1,
                  [a](const Arguments& arguments, const Reply& reply) {
                    Finish(reply, a->Return(arguments.empty() ? "" : arguments[0]) ? "" : "the agent lives");
                  }});
}

}  // namespace zem::sim
