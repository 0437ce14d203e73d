#include "sim/manager/vif_commands.h"

#include <array>
#include <limits>
#include <optional>

#include "platform/core/uuid.h"
#include "proto/switching/vif.pb.h"
#include "sim/control/command_options.h"
#include "sim/control/command_table.h"
#include "sim/control/number.h"
#include "sim/manager/manager.h"
#include "sim/manager/vif_table.h"

namespace zem::sim {
namespace {

constexpr const char* kVertical = "SwitchingVertical";
constexpr const char* kAll = "all";
constexpr std::array kOperations = {"attach", "detach", "update", "restore"};

struct RuleKind {
  const char* name;
  VifRule::Kind kind;
};
constexpr std::array kKinds = {
    RuleKind{"serve", VifRule::Kind::kServe},
    RuleKind{"silent", VifRule::Kind::kSilent},
    RuleKind{"lost", VifRule::Kind::kLost},
    RuleKind{"error", VifRule::Kind::kError},
    RuleKind{"empty-port", VifRule::Kind::kEmptyPort},
    RuleKind{"nothing", VifRule::Kind::kNothing},
    RuleKind{"port", VifRule::Kind::kPort},
    RuleKind{"port-and-path", VifRule::Kind::kPortAndPath},
};

struct RuleOf {
  const char* name;
  VifRule::Of of;
};
constexpr std::array kOf = {RuleOf{"any", VifRule::Of::kAny}, RuleOf{"attach", VifRule::Of::kAttach},
                            RuleOf{"detach", VifRule::Of::kDetach}};

std::string VifOf(const std::string& word) { return word == kAll ? std::string() : word; }

Json MapJson(const std::map<std::string, std::string>& map) {
  Json object = JsonObject();
  for (const auto& [key, value] : map) AddMember(object.get(), key.c_str(), value);
  return object;
}

Json PlaceJson(const VifPlace& place) {
  Json item = JsonObject();
  AddMember(item.get(), "vif", place.vif);
  AddMember(item.get(), "ls", place.ls);
  AddMember(item.get(), "port", place.port);
  AddMember(item.get(), "zone", place.zone);
  AddMember(item.get(), "host", place.host);
  AddMember(item.get(), "path", place.path);
  if (!place.site_config.empty()) AddMember(item.get(), "site_config", MapJson(place.site_config));
  if (!place.restored.empty()) AddMember(item.get(), "restored", place.restored);
  return item;
}

Json RecordJson(const VifRecord& record) {
  Json item = JsonObject();
  AddMember(item.get(), "number", record.number);
  AddMember(item.get(), "at_us", record.at_us);
  AddMember(item.get(), "operation",
            record.operation < kOperations.size() ? kOperations[record.operation] : "unknown");
  AddMember(item.get(), "rpc_id", record.rpc_id);
  AddMember(item.get(), "vif", record.vif);
  AddMember(item.get(), "ls", record.ls);
  AddMember(item.get(), "port", record.port);
  AddMember(item.get(), "host", record.host);
  AddMember(item.get(), "path", record.path);
  if (!record.state.empty()) AddMember(item.get(), "state", record.state);
  if (!record.error.empty()) AddMember(item.get(), "error", record.error);
  if (!record.site_config.empty()) AddMember(item.get(), "site_config", MapJson(record.site_config));
  AddMember(item.get(), "answer", record.answer);
  return item;
}

template <class Items, class ToJson>
void Listed(const Items& items, const ToJson& to_json, const Reply& reply) {
  Json list = JsonArray();
  for (const auto& each : items) AddItem(list.get(), to_json(each));
  Json result = JsonObject();
  AddMember(result.get(), "count", static_cast<uint64_t>(items.size()));
  AddMember(result.get(), "list", std::move(list));
  reply.Ok(std::move(result));
}

void List(const VifTable& vifs, const Arguments& arguments, const Reply& reply) {
  std::vector<VifPlace> places = vifs.Places();
  if (!arguments.empty()) {
    std::erase_if(places, [&](const VifPlace& place) { return place.ls != arguments[0]; });
  }
  Listed(places, PlaceJson, reply);
}

void Show(const VifTable& vifs, const std::string& vif, const Reply& reply) {
  const auto place = vifs.Find(vif);
  if (!place) return reply.Fail("the manager has no VIF " + vif);
  reply.Ok(PlaceJson(*place));
}

void SetSwitch(VifTable& vifs, const Arguments& arguments, const Reply& reply) {
  if (arguments.size() > 1) {
    vifs.AddSwitch(arguments[0], arguments[1]);
  } else if (arguments.size() == 1 && !vifs.RemoveSwitch(arguments[0])) {
    return reply.Fail("the manager has no logical switch " + arguments[0]);
  }
  const auto switches = vifs.Switches();
  Listed(
      switches,
      [](const auto& entry) {
        Json item = JsonObject();
        AddMember(item.get(), "ls", entry.first);
        AddMember(item.get(), "zone", entry.second);
        return item;
      },
      reply);
}

void Answer(VifTable& vifs, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--count", "--delay-ms"}, {});
  if (!options.error().empty()) return reply.Fail(options.error());
  const Arguments& words = options.positional();
  if (words.size() < 3) return reply.Fail("VIF or all; any, attach or detach; and how");
  VifRule rule;
  bool known_of = false;
  for (const RuleOf& row : kOf) {
    if (words[1] != row.name) continue;
    rule.of = row.of;
    known_of = true;
  }
  if (!known_of) return reply.Fail("any, attach or detach, not " + words[1]);
  const RuleKind* kind = nullptr;
  for (const RuleKind& row : kKinds) {
    if (words[2] == row.name) kind = &row;
  }
  if (kind == nullptr) return reply.Fail("no such answer: " + words[2]);
  rule.kind = kind->kind;
  rule.text = options.Rest(3);
  if (rule.kind == VifRule::Kind::kError && rule.text.empty()) return reply.Fail("an error needs a text");
  const auto count = NumberOf<int64_t>(options.Value("--count").value_or("-1"));
  const auto delay = NumberOf<int64_t>(options.Value("--delay-ms").value_or("0"));
  if (!count || *count == 0 || !delay || *delay < 0) return reply.Fail("--count and --delay-ms take numbers");
  rule.count = static_cast<int>(*count);
  rule.delay = std::chrono::milliseconds(*delay);
  vifs.SetRule(VifOf(words[0]), rule);
  reply.Ok();
}

void Place(VifTable& vifs, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--port", "--host", "--path", "--zone"}, {});
  if (!options.error().empty()) return reply.Fail(options.error());
  if (options.positional().size() != 2) return reply.Fail("a VIF and a logical switch");
  VifPlace place;
  place.vif = options.positional()[0];
  place.ls = options.positional()[1];
  place.port = options.Value("--port").value_or("");
  place.host = options.Value("--host").value_or("");
  place.path = options.Value("--path").value_or("");
  place.zone = options.Value("--zone").value_or("");
  reply.Ok(PlaceJson(vifs.Place(std::move(place))));
}

void Extras(VifTable& vifs, const Arguments& arguments, const Reply& reply) {
  const std::string error = vifs.SetExtras(VifOf(arguments[0]), arguments.size() > 1 ? arguments[1] : "");
  if (!error.empty()) return reply.Fail(error);
  reply.Ok();
}

void Messages(const VifTable& vifs, const Arguments& arguments, const Reply& reply) {
  const auto after = NumberOf<int64_t>(arguments.size() > 1 ? arguments[1] : "0");
  if (!after || *after < 0) return reply.Fail("not a number: " + arguments[1]);
  const std::string vif = arguments.empty() ? "" : VifOf(arguments[0]);
  Listed(vifs.Records(vif, static_cast<uint64_t>(*after)), RecordJson, reply);
}

// Sends a request of the manager itself, which the host does not answer in the call.
void SendRequest(Manager& manager, const std::unique_ptr<orlane::zem::switching::VifMsg>& message,
                 const std::string& vif, const Reply& reply) {
  if (!message) return reply.Fail("the manager has no VIF " + vif);
  Manager::SendRequest request;
  request.vertical = kVertical;
  request.member = "VifMsg";
  request.text = message->ShortDebugString();
  const std::string error = manager.Send(request, [](const HostAnswer&) {});
  if (!error.empty()) return reply.Fail(error);
  Json result = JsonObject();
  AddMember(result.get(), "operation_id", message->vif_attachment(0).operation_id());
  AddMember(result.get(), "port", message->vif_attachment(0).logical_port_id());
  reply.Ok(std::move(result));
}

}  // namespace

void RegisterVifCommands(CommandTable& table, Manager& manager) {
  using A = const Arguments&;
  using R = const Reply&;
  constexpr size_t kMany = std::numeric_limits<size_t>::max();
  Manager* const m = &manager;
  VifTable* const v = &manager.vifs();
  table.Register(
      {"vif/switch", "[LS [ZONE]]",
       "Tells the manager in which zone a logical switch is, which from then on answers requests "
       "about VIFs from its table.  LS alone takes it away again; without arguments it shows them.",
       0, 2, [v](A a, R r) { SetSwitch(*v, a, r); }});
  table.Register(
      {"vif/list", "[LS]", "Shows where VIFs are attached.", 0, 1, [v](A a, R r) { List(*v, a, r); }});
  table.Register(
      {"vif/show", "VIF", "Shows where a VIF is attached.", 1, 1, [v](A a, R r) { Show(*v, a[0], r); }});
  table.Register(
      {"vif/answer", "[--count N] [--delay-ms N] VIF|all any|attach|detach KIND [TEXT]",
       "How requests about a VIF are answered: serve (by the table), silent (not taken), lost (taken, not "
       "answered), error TEXT; an attach also empty-port; a detach also nothing, port, port-and-path.",
       3, kMany, [v](A a, R r) { Answer(*v, a, r); }});
  table.Register(
      {"vif/extras", "VIF|all [VIFATTACHMENTMSG]",
       "What answers to an attach say besides (text format): initial state, VLAN, ranges, teaming, "
       "extra configuration, tenancy.",
       1, 2, [v](A a, R r) { Extras(*v, a, r); }});
  table.Register({"vif/clear", "", "Ends all of \"vif/answer\" and \"vif/extras\".", 0, 0, [v](A, R r) {
                    v->ClearRules();
                    r.Ok();
                  }});
  table.Register({"vif/place", "[--port PORT] [--host HOST] [--path PATH] [--zone ZONE] VIF LS",
                  "Has a VIF attached without a host's doing.", 2, kMany,
                  [v](A a, R r) { Place(*v, a, r); }});
  table.Register({"vif/detach", "VIF", "The manager takes a VIF off and tells the host, unasked.", 1, 1,
                  [m, v](A a, R r) { SendRequest(*m, v->TakeOff(a[0]), a[0], r); }});
  table.Register({"vif/restore", "VIF [STATE]",
                  "The manager asks the host to restore a VIF's port; the result repeats STATE.", 1, 2,
                  [m, v](A a, R r) {
                    SendRequest(*m, v->AskRestore(a[0], a.size() > 1 ? a[1] : "RESTORED"), a[0], r);
                  }});
  table.Register({"vif/messages", "[VIF|all [AFTER]]",
                  "Shows what hosts have sent about VIFs, each with its answer.", 0, 2,
                  [v](A a, R r) { Messages(*v, a, r); }});
}

}  // namespace zem::sim
