#include "sim/dataplane/trace_commands.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <optional>

#include "sim/control/command_table.h"
#include "sim/control/json.h"
#include "sim/control/number.h"
#include "sim/dataplane/packet_walk.h"
#include "sim/dataplane/trace_agent.h"

namespace zem::sim {
namespace {

void Finish(const Reply& reply, const std::string& error) {
  if (error.empty()) {
    reply.Ok();
  } else {
    reply.Fail(error);
  }
}

void SetAnswers(TraceAgent& agent, const Arguments& arguments, const Reply& reply) {
  const auto* const kind = std::find(std::begin(kTraceAnswers), std::end(kTraceAnswers), arguments[0]);
  const auto count = arguments.size() > 1 ? NumberOf<int>(arguments[1]) : std::optional<int>(-1);
  if (kind == std::end(kTraceAnswers) || !count)
    return reply.Fail("good, silent, twice, unknown-id, other-side, garbage or cut, and a number");
  agent.SetAnswers(static_cast<TraceAgent::Answers>(kind - std::begin(kTraceAnswers)), *count);
  reply.Ok();
}

void ShowTraces(const TraceAgent& agent, const Reply& reply) {
  const TimePoint now = Clock::Process().Now();
  const auto age_ms = [now](TimePoint at) {
    return static_cast<int64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now - at).count());
  };
  Json rounds = JsonArray();
  for (const TraceAgent::Round& round : agent.rounds()) {
    Json item = JsonObject();
    AddMember(item.get(), "id", round.id);
    AddMember(item.get(), "port", round.port);
    AddMember(item.get(), "age_ms", age_ms(round.at));
    AddMember(item.get(), "hops", static_cast<uint64_t>(round.hops));
    AddMember(item.get(), "answered", round.answered);
    AddItem(rounds.get(), std::move(item));
  }
  Json sessions = JsonArray();
  for (const TraceAgent::Session& session : agent.sessions()) {
    Json item = JsonObject();
    AddMember(item.get(), "id", session.id);
    AddMember(item.get(), "side", session.side);
    AddMember(item.get(), "name", session.name);
    AddMember(item.get(), "port", session.port);
    AddMember(item.get(), "upload_id", session.upload_id);
    AddMember(item.get(), "age_ms", age_ms(session.at));
    AddMember(item.get(), "packets", session.packets);
    AddMember(item.get(), "capture", session.capture);
    AddItem(sessions.get(), std::move(item));
  }
  Json captures = JsonArray();
  for (const std::string& capture : agent.handed_over()) AddItem(captures.get(), capture);
  Json result = JsonObject();
  AddMember(result.get(), "rounds", std::move(rounds));
  AddMember(result.get(), "sessions", std::move(sessions));
  AddMember(result.get(), "captures", std::move(captures));
  reply.Ok(std::move(result));
}

// Every byte as octal digits, so that the text needs no quoting anywhere.
std::string Escaped(const std::string& bytes) {
  std::string text;
  for (const char c : bytes) {
    char piece[sizeof("\\377")];
    std::snprintf(piece, sizeof(piece), "\\%03o", static_cast<unsigned>(static_cast<uint8_t>(c)));
    text += piece;
  }
  return text;
}

void ShowPacket(const Arguments& arguments, const Reply& reply) {
  std::optional<std::string_view> destination;
  if (arguments.size() > 1) destination = arguments[1];
  Json result = JsonObject();
  AddMember(result.get(), "text", Escaped(PacketBetween(arguments[0], destination)));
  reply.Ok(std::move(result));
}

struct SessionWords {
  std::optional<uint64_t> id;
  std::optional<uint32_t> side;
};
SessionWords WordsOf(const Arguments& arguments) {
  return {NumberOf<uint64_t>(arguments[0]),
          arguments.size() > 1 ? NumberOf<uint32_t>(arguments[1]) : std::optional<uint32_t>(0)};
}

}  // namespace

void RegisterTraceCommands(CommandTable& table, TraceAgent& agent) {
  TraceAgent* const a = &agent;
  table.Register({"answers", "good|silent|twice|unknown-id|other-side|garbage|cut [COUNT]",
                  "How trace requests are answered: all, or the next COUNT of them.", 1, 2,
                  [a](const Arguments& arguments, const Reply& reply) { SetAnswers(*a, arguments, reply); }});
  table.Register({"late", "MILLISECONDS", "How late trace requests are served.", 1, 1,
                  [a](const Arguments& arguments, const Reply& reply) {
                    const auto delay = NumberOf<uint32_t>(arguments[0]);
                    if (!delay) return reply.Fail("not a number: " + arguments[0]);
                    a->SetDelay(std::chrono::milliseconds(*delay));
                    reply.Ok();
                  }});
  table.Register({"traces", "", "Shows the traceflow rounds, the live trace sessions that run, and captures.",
                  0, 0, [a](const Arguments&, const Reply& reply) { ShowTraces(*a, reply); }});
  table.Register({"packet", "PORT [PORT]",
                  "A frame from one port to another, or to nobody on this host, as text format wants bytes.",
                  1, 2,
                  [](const Arguments& arguments, const Reply& reply) { ShowPacket(arguments, reply); }});
  table.Register({"onboard", "ID PORT [PACKETS]", "The dataplane begins a live trace session by itself.", 2,
                  3, [a](const Arguments& arguments, const Reply& reply) {
                    const auto id = NumberOf<uint64_t>(arguments[0]);
                    const auto packets =
                        arguments.size() > 2 ? NumberOf<uint32_t>(arguments[2]) : std::optional<uint32_t>(0);
                    if (!id || !packets) return reply.Fail("not a number");
                    Finish(reply, a->Onboard(*id, arguments[1], *packets));
                  }});
  table.Register({"invalidate", "ID [SIDE]", "A session cannot go on.", 1, 2,
                  [a](const Arguments& arguments, const Reply& reply) {
                    const auto [id, side] = WordsOf(arguments);
                    if (!id || !side) return reply.Fail("not a number");
                    Finish(reply, a->Invalidate(*id, *side));
                  }});
  table.Register({"end", "ID [SIDE]", "Ends a session early, with its barrier.", 1, 2,
                  [a](const Arguments& arguments, const Reply& reply) {
                    const auto [id, side] = WordsOf(arguments);
                    if (!id || !side) return reply.Fail("not a number");
                    Finish(reply, a->End(*id, *side));
                  }});
}

}  // namespace zem::sim
