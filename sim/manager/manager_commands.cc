#include "sim/manager/manager_commands.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>

#include "platform/core/uuid.h"
#include "sim/control/command_options.h"
#include "sim/control/invented_id.h"
#include "sim/control/number.h"
#include "sim/manager/manager.h"

namespace zem::sim {
namespace {

Json AphJson(const std::string& id, bool master) {
  Json item = JsonObject();
  AddMember(item.get(), "id", id);
  AddMember(item.get(), "master", master);
  return item;
}

void Send(Manager& manager, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--aph", "--correlation", "--timeout"},
                               {"--publish", "--no-wait", "--no-header"});
  if (!options.error().empty()) return reply.Fail(options.error());
  const Arguments& words = options.positional();
  if (words.size() < 2) return reply.Fail("usage: send [OPTIONS] VERTICAL MESSAGE [TEXT]");
  Manager::SendRequest request;
  request.vertical = words[0];
  request.member = words[1];
  request.text = options.Rest(2);
  if (request.text.starts_with('@')) {
    std::ifstream file(request.text.substr(1));
    if (!file) return reply.Fail(request.text.substr(1) + ": " + std::strerror(errno));
    std::ostringstream text;
    text << file.rdbuf();
    request.text = text.str();
  }
  request.aph = options.Value("--aph").value_or("");
  const auto correlation = options.Value("--correlation");
  request.correlation_id =
      correlation ? *correlation : InventedUuidText("message to " + request.vertical + " " + request.member);
  request.with_header = !options.Has("--no-header");
  request.publish = options.Has("--publish");
  if (const auto timeout = options.Value("--timeout")) {
    const auto seconds = NumberOf<int64_t>(*timeout);
    if (!seconds || *seconds <= 0) return reply.Fail("not a number of seconds: " + *timeout);
    request.timeout = std::chrono::seconds(*seconds);
  }
  const bool wait = !options.Has("--no-wait");
  const TimePoint begin = Clock::Process().Now();
  const std::string vertical = request.vertical;
  const std::string id = *request.correlation_id;
  const std::string error =
      manager.Send(request, [wait, reply, begin, vertical, id](const HostAnswer& answer) {
        if (!wait) return;
        if (!answer.status.ok()) return reply.Fail(answer.status.ToString());
        Json result = JsonObject();
        AddMember(result.get(), "correlation_id", id);
        AddMember(result.get(), "status", answer.status.code());
        const auto took = Clock::Process().Now() - begin;
        AddMember(result.get(), "took_us",
                  static_cast<int64_t>(std::chrono::duration_cast<std::chrono::microseconds>(took).count()));
        const auto at = begin.time_since_epoch();
        AddMember(result.get(), "sent_at_us",
                  static_cast<int64_t>(std::chrono::duration_cast<std::chrono::microseconds>(at).count()));
        AddMember(result.get(), "answer", Json(cJSON_Parse(AnswerJson(vertical, answer).c_str())));
        reply.Ok(std::move(result));
      });
  if (!error.empty()) return reply.Fail(error);
  if (wait) return;
  Json result = JsonObject();
  AddMember(result.get(), "correlation_id", id);
  reply.Ok(std::move(result));
}

void ReceivedCommand(const Manager& manager, const Arguments& arguments, const Reply& reply) {
  const std::string vertical = !arguments.empty() && arguments[0] != "all" ? arguments[0] : "";
  const std::string which = arguments.size() > 1 ? arguments[1] : "0";
  const auto after = NumberOf<uint64_t>(which);
  const std::string type = after ? "" : "." + which;
  Json messages = JsonArray();
  for (const Received& each : manager.record().ReceivedFrom(vertical, after.value_or(0))) {
    if (!each.type.ends_with(type)) continue;
    Json item = JsonObject();
    AddMember(item.get(), "number", each.number);
    AddMember(item.get(), "aph", each.aph);
    AddMember(item.get(), "vertical", each.vertical);
    AddMember(item.get(), "host", each.host);
    AddMember(item.get(), "kind", each.publish ? "publish" : "request");
    AddMember(item.get(), "type", each.type);
    AddMember(item.get(), "correlation_id", each.correlation_id);
    AddMember(item.get(), "tracking_id", each.tracking_id);
    AddMember(item.get(), "message", Json(cJSON_Parse(each.json.c_str())));
    AddItem(messages.get(), std::move(item));
  }
  Json result = JsonObject();
  AddMember(result.get(), "count", static_cast<int64_t>(cJSON_GetArraySize(messages.get())));
  AddMember(result.get(), "messages", std::move(messages));
  reply.Ok(std::move(result));
}

void Answer(Manager& manager, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--count", "--delay-ms"}, {});
  if (!options.error().empty()) return reply.Fail(options.error());
  const Arguments& words = options.positional();
  if (words.size() < 3 || (words[1] != "app-init" && words[1] != "request")) {
    return reply.Fail(
        "usage: answer [--count N] [--delay-ms N] VERTICAL|all app-init|request KIND [STATUS|TEXT]");
  }
  AnswerRule rule;
  const std::string& kind = words[2];
  if (kind == "serve") {
    rule.kind = AnswerRule::Kind::kServe;
  } else if (kind == "status") {
    const auto status = words.size() > 3 ? NumberOf<int64_t>(words[3]) : std::nullopt;
    if (!status || *status == 0) return reply.Fail("a status other than 0 is needed");
    rule.kind = AnswerRule::Kind::kStatus;
    rule.status = static_cast<int>(*status);
  } else if (kind == "never") {
    rule.kind = AnswerRule::Kind::kNever;
  } else if (kind == "garbage") {
    rule.kind = AnswerRule::Kind::kGarbage;
  } else if (kind == "wrong-type") {
    rule.kind = AnswerRule::Kind::kWrongType;
  } else if (kind == "text") {
    rule.kind = AnswerRule::Kind::kText;
    rule.text = options.Rest(3);
  } else {
    return reply.Fail("unknown kind " + kind + "; one of serve, status, never, garbage, wrong-type, text");
  }
  if (const auto count = options.Value("--count"))
    rule.count = static_cast<int>(NumberOf<int64_t>(*count).value_or(1));
  if (const auto delay = options.Value("--delay-ms")) {
    rule.delay = std::chrono::milliseconds(NumberOf<int64_t>(*delay).value_or(0));
  }
  if (words[0] != "all" && FindManagerVertical(words[0]) == nullptr)
    return reply.Fail("no vertical " + words[0]);
  manager.SetRule(words[0] == "all" ? "" : words[0], words[1] == "app-init", rule);
  reply.Ok();
}

// "ID:master", "ID:other", ":master" (no id), "ID:" (no flag).
std::optional<ProxyInfo::Entry> ParseEntry(const std::string& word) {
  const size_t colon = word.find(':');
  if (colon == std::string::npos) return std::nullopt;
  ProxyInfo::Entry entry;
  const std::string id = word.substr(0, colon);
  const std::string role = word.substr(colon + 1);
  if (!id.empty()) {
    if (!ParseUuid(id)) return std::nullopt;
    entry.id = id;
  }
  if (role == "master" || role == "other") {
    entry.master = role == "master";
  } else if (!role.empty()) {
    return std::nullopt;
  }
  return entry;
}

void PublishRaw(Manager& manager, const Arguments& arguments, const Reply& reply) {
  ProxyInfo info;
  for (const std::string& word : arguments) {
    const auto entry = ParseEntry(word);
    if (!entry) return reply.Fail("not ID:master, ID:other, :master or ID: " + word);
    info.aphs.push_back(*entry);
  }
  manager.PublishRaw(info);
  reply.Ok();
}

Json State(Manager& manager) {
  Json result = JsonObject();
  AddMember(result.get(), "proxy", manager.proxy_running() ? "running" : "stopped");
  AddMember(result.get(), "master", manager.Master());
  Json aphs = JsonArray();
  for (const auto& [id, master] : manager.Aphs()) AddItem(aphs.get(), AphJson(id, master));
  AddMember(result.get(), "aphs", std::move(aphs));
  Json served = JsonObject();
  for (const auto& [vertical, count] : manager.served_app_inits())
    AddMember(served.get(), vertical.c_str(), count);
  AddMember(result.get(), "served_app_inits", std::move(served));
  AddMember(result.get(), "received", manager.record().received_count());
  if (const auto proxy = manager.proxy()) {
    AddMember(result.get(), "subscribers", static_cast<uint64_t>(proxy->subscribers()));
    Json ids = JsonArray();
    for (const std::string& id : proxy->PeerIds()) AddItem(ids.get(), id);
    AddMember(result.get(), "peer_ids", std::move(ids));
  }
  return result;
}

}  // namespace

void RegisterManagerCommands(CommandTable& table, Manager& manager) {
  constexpr size_t kMany = 1000;
  Manager* const m = &manager;
  table.Register({"state", "", "Shows proxy, APHs, master, served app-inits and announced ids.", 0, 0,
                  [m](const Arguments&, const Reply& reply) { reply.Ok(State(*m)); }});
  table.Register({"send",
                  "[--aph ID] [--correlation ID] [--timeout SECONDS] [--publish] [--no-wait] [--no-header] "
                  "VERTICAL MESSAGE [TEXT|@FILE]",
                  "Sends a message (text format, or a file with it as the node sees it) to a vertical of the "
                  "host, as the "
                  "master unless an APH is named, and shows the answer.",
                  2, kMany,
                  [m](const Arguments& arguments, const Reply& reply) { Send(*m, arguments, reply); }});
  table.Register(
      {"received", "[VERTICAL|all] [AFTER|TYPE]",
       "Shows what hosts have sent, after a number or of a type such as HostConfigAckMsg.", 0, 2,
       [m](const Arguments& arguments, const Reply& reply) { ReceivedCommand(*m, arguments, reply); }});
  table.Register({"answer", "[--count N] [--delay-ms N] VERTICAL|all app-init|request KIND [STATUS|TEXT]",
                  "Says how requests of hosts are answered: serve, status, never, garbage, wrong-type, text.",
                  3, kMany,
                  [m](const Arguments& arguments, const Reply& reply) { Answer(*m, arguments, reply); }});
  table.Register({"master", "[ID]", "Makes an APH the master, or nobody.", 0, 1,
                  [m](const Arguments& arguments, const Reply& reply) {
                    const std::string id = arguments.empty() ? "" : arguments[0];
                    if (!m->SetMaster(id)) return reply.Fail("no APH " + id);
                    reply.Ok();
                  }});
  table.Register({"aph/add", "ID", "Starts an APH and lists it.", 1, 1,
                  [m](const Arguments& arguments, const Reply& reply) {
                    if (!ParseUuid(arguments[0])) return reply.Fail("not a uuid: " + arguments[0]);
                    m->AddAph(arguments[0], false);
                    reply.Ok();
                  }});
  table.Register({"aph/lose", "ID [listed]", "Ends an APH; with \"listed\" the proxy goes on naming it.", 1,
                  2, [m](const Arguments& arguments, const Reply& reply) {
                    const bool listed = arguments.size() > 1 && arguments[1] == "listed";
                    if (!m->RemoveAph(arguments[0], listed)) return reply.Fail("no APH " + arguments[0]);
                    reply.Ok();
                  }});
  table.Register(
      {"aph/tell", "[ENTRY...]",
       "Tells the agent this list once instead of the true one; ENTRY is ID:master, ID:other, :master or "
       "ID:.",
       0, kMany, [m](const Arguments& arguments, const Reply& reply) { PublishRaw(*m, arguments, reply); }});
  table.Register(
      {"proxy/kill", "", "Ends the proxy process.", 0, 0, [m](const Arguments&, const Reply& reply) {
         if (!m->proxy_running()) return reply.Fail("the proxy does not run");
         m->StopProxy();
         reply.Ok();
       }});
  table.Register(
      {"proxy/start", "", "Starts the proxy process again.", 0, 0, [m](const Arguments&, const Reply& reply) {
         if (m->proxy_running()) return reply.Fail("the proxy runs");
         m->StartProxy();
         reply.Ok();
       }});
  table.Register({"proxy/forwarding", "on|off",
                  "While off, the proxy tells of APHs but nobody reaches its forwarding endpoint.", 1, 1,
                  [m](const Arguments& arguments, Reply reply) {
                    if (arguments[0] != "on" && arguments[0] != "off") return reply.Fail("on or off");
                    if (m->proxy() == nullptr) return reply.Fail("the proxy does not run");
                    m->proxy()->SetForwarding(arguments[0] == "on");
                    reply.Ok();
                  }});
  table.Register({"proxy/end-subscriptions", "STATUS", "Ends the subscriptions to the list of APHs.", 1, 1,
                  [m](const Arguments& arguments, const Reply& reply) {
                    const auto status = NumberOf<int64_t>(arguments[0]);
                    const auto proxy = m->proxy();
                    if (!status || !proxy) return reply.Fail("no status, or no proxy");
                    proxy->EndSubscriptions(static_cast<int>(*status));
                    reply.Ok();
                  }});
  table.Register({"proxy/refuse-subscriptions", "STATUS|off", "Refuses subscriptions with a status.", 1, 1,
                  [m](const Arguments& arguments, const Reply& reply) {
                    const auto proxy = m->proxy();
                    if (!proxy) return reply.Fail("the proxy does not run");
                    std::optional<int> status;
                    if (arguments[0] != "off")
                      status = static_cast<int>(NumberOf<int64_t>(arguments[0]).value_or(13));
                    proxy->RefuseSubscriptions(status);
                    reply.Ok();
                  }});
}

}  // namespace zem::sim
