#include "sim/host/edge_commands.h"

#include <cstdlib>
#include <string_view>

#include "sim/control/command_options.h"
#include "sim/control/command_table.h"
#include "sim/host/edge_service.h"

namespace zem::sim {
namespace {

using Kind = EdgeService::Fault::Kind;

struct KindRow {
  std::string_view name;
  Kind kind;
  bool takes_value;
};
constexpr KindRow kKinds[] = {
    {"status", Kind::kStatus, true}, {"body", Kind::kBody, true},    {"raw", Kind::kRaw, true},
    {"hold", Kind::kHold, true},     {"close", Kind::kClose, false}, {"never", Kind::kNever, false},
    {"late", Kind::kLate, true},
};

Json List(const std::vector<std::string>& texts) {
  Json list = JsonArray();
  for (const std::string& text : texts) AddItem(list.get(), text);
  return list;
}

void Show(const EdgeService& service, const Reply& reply) {
  const EdgeService::State state = service.state();
  Json result = JsonObject();
  AddMember(result.get(), "listening", state.listening);
  AddMember(result.get(), "maintenance", state.maintenance);
  AddMember(result.get(), "requests", List(state.requests));
  AddMember(result.get(), "violations", List(state.violations));
  reply.Ok(std::move(result));
}

void Fail(EdgeService& service, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--count"}, {});
  if (!options.error().empty()) return reply.Fail(options.error());
  const auto& words = options.positional();
  const auto count = options.Value("--count");
  for (const KindRow& row : kKinds) {
    if (words.empty() || words[0] != row.name) continue;
    if (words.size() != (row.takes_value ? 2u : 1u)) break;
    EdgeService::Fault fault;
    fault.kind = row.kind;
    if (row.takes_value) {
      fault.text = words[1];
      fault.status = static_cast<unsigned>(std::atoi(words[1].c_str()));
      fault.delay = std::chrono::milliseconds(std::atoi(words[1].c_str()));
    }
    service.Add(fault, count ? std::atoi(count->c_str()) : 1);
    return reply.Ok();
  }
  reply.Fail("status N, body TEXT, raw TEXT, hold TEXT, close, never or late MS");
}

}  // namespace

void RegisterEdgeCommands(CommandTable& table, EdgeService& service) {
  EdgeService* const s = &service;
  table.Register({"edge/state", "", "Shows the edge's mode, and the requests that it got.", 0, 0,
                  [s](const Arguments&, const Reply& reply) { Show(*s, reply); }});
  table.Register({"edge/fault", "[--count N] status N|body TEXT|raw TEXT|hold TEXT|close|never|late MS",
                  "How the next requests (one) end instead of as usual.", 1, 4,
                  [s](const Arguments& arguments, const Reply& reply) { Fail(*s, arguments, reply); }});
  table.Register({"edge/listen", "on|off", "Whether anybody reaches the service.", 1, 1,
                  [s](const Arguments& arguments, const Reply& reply) {
                    if (arguments[0] != "on" && arguments[0] != "off") return reply.Fail("on or off");
                    arguments[0] == "on" ? s->Start() : s->Stop();
                    reply.Ok();
                  }});
}

}  // namespace zem::sim
