#include "sim/idfw/logon_commands.h"

#include <algorithm>
#include <array>
#include <chrono>

#include "platform/core/uuid.h"
#include "sim/control/command_options.h"
#include "sim/control/command_table.h"
#include "sim/control/number.h"
#include "sim/idfw/logon_receiver.h"

namespace zem::sim {
namespace {

using orlane::zem::context::idfw::LoginLogoffEvent;

constexpr size_t kBatchesShown = 20;
constexpr size_t kMostArguments = 5;

struct AnswersName {
  const char* name;
  LogonReceiver::Kind kind;
};
constexpr std::array kAnswers = {
    AnswersName{"ok", LogonReceiver::Kind::kOk},
    AnswersName{"status", LogonReceiver::Kind::kStatus},
    AnswersName{"never", LogonReceiver::Kind::kNever},
    AnswersName{"garbage", LogonReceiver::Kind::kGarbage},
    AnswersName{"other-type", LogonReceiver::Kind::kOtherType},
    AnswersName{"foreign-id", LogonReceiver::Kind::kForeignId},
};

Json EventJson(const LoginLogoffEvent& event) {
  Json item = JsonObject();
  AddMember(item.get(), "user", event.user().user_name());
  AddMember(item.get(), "domain", event.user().domain_name());
  AddMember(item.get(), "session", event.session_id());
  if (event.has_event_type()) AddMember(item.get(), "type", event.event_type());
  AddMember(item.get(), "timestamp", event.timestamp());
  AddMember(item.get(), "vm", UuidText(event.vm_id()));
  AddMember(item.get(), "bios", UuidText(event.bios_id()));
  if (event.has_client_ip()) AddMember(item.get(), "client", event.client_ip().address());
  return item;
}

Json StateJson(const LogonReceiver& receiver) {
  const LogonReceiver::State state = receiver.state();
  Json result = JsonObject();
  AddMember(result.get(), "received", state.received);
  AddMember(result.get(), "batches", state.batches);
  AddMember(result.get(), "events", state.events);
  AddMember(result.get(), "acknowledged", state.acknowledged);
  if (!state.kept.empty()) AddMember(result.get(), "last_id", state.kept.back().id);
  return result;
}

Json BatchesJson(const LogonReceiver& receiver, size_t most) {
  const LogonReceiver::State state = receiver.state();
  Json batches = JsonArray();
  for (size_t i = state.kept.size() - std::min(most, state.kept.size()); i < state.kept.size(); ++i) {
    const LogonReceiver::Batch& batch = state.kept[i];
    Json item = JsonObject();
    AddMember(item.get(), "id", batch.id);
    AddMember(item.get(), "times", batch.times);
    AddMember(item.get(), "acknowledged", batch.acknowledged);
    Json events = JsonArray();
    for (const LoginLogoffEvent& event : batch.events.login_logoff_event())
      AddItem(events.get(), EventJson(event));
    AddMember(item.get(), "events", std::move(events));
    AddItem(batches.get(), std::move(item));
  }
  return batches;
}

void SetAnswers(LogonReceiver& receiver, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--code", "--text", "--count"}, {});
  if (!options.error().empty()) return reply.Fail(options.error());
  if (options.positional().size() != 1) return reply.Fail("one kind of answer");
  const auto* const name = std::find_if(kAnswers.begin(), kAnswers.end(), [&](const AnswersName& row) {
    return options.positional()[0] == row.name;
  });
  if (name == kAnswers.end()) return reply.Fail("no answer \"" + options.positional()[0] + "\"");
  LogonReceiver::Answers answers;
  answers.kind = name->kind;
  const auto code = NumberOf<int32_t>(options.Value("--code").value_or("1"));
  const auto count = NumberOf<int>(options.Value("--count").value_or("-1"));
  if (!code || !count) return reply.Fail("not a number");
  answers.status = *code;
  answers.count = *count;
  answers.text = options.Value("--text").value_or("");
  receiver.SetAnswers(std::move(answers));
  reply.Ok();
}

}  // namespace

void RegisterLogonCommands(CommandTable& table, LogonReceiver& receiver) {
  LogonReceiver* const r = &receiver;
  table.Register({"state", "", "Shows how many batches and events came, each counted once.", 0, 0,
                  [r](const Arguments&, const Reply& reply) { reply.Ok(StateJson(*r)); }});
  table.Register({"batches", "[COUNT]", "Shows the newest batches (20), oldest first.", 0, 1,
                  [r](const Arguments& arguments, const Reply& reply) {
                    const auto most =
                        NumberOf<size_t>(arguments.empty() ? std::to_string(kBatchesShown) : arguments[0]);
                    if (!most) return reply.Fail("how many?");
                    reply.Ok(BatchesJson(*r, *most));
                  }});
  table.Register({"answers",
                  "[--code N] [--text TEXT] [--count N] ok|status|never|garbage|other-type|foreign-id",
                  "Sets how batches are acknowledged, or the next --count of them.", 1, kMostArguments + 2,
                  [r](const Arguments& arguments, const Reply& reply) { SetAnswers(*r, arguments, reply); }});
  table.Register({"late", "SECONDS", "Answers come so much later; 0 ends it.", 1, 1,
                  [r](const Arguments& arguments, const Reply& reply) {
                    const auto seconds = NumberOf<double>(arguments[0]);
                    if (!seconds || *seconds < 0) return reply.Fail("not a number of seconds");
                    r->SetDelay(std::chrono::milliseconds(static_cast<int64_t>(*seconds * 1000)));
                    reply.Ok();
                  }});
  table.Register(
      {"forget", "", "Forgets the batches that came.", 0, 0, [r](const Arguments&, const Reply& reply) {
         r->Forget();
         reply.Ok();
       }});
}

std::vector<std::string> DrawLogons(const LogonReceiver& receiver) {
  const LogonReceiver::State state = receiver.state();
  if (state.received == 0) return {};
  return {"logons at the manager: " + std::to_string(state.events) + " events in " +
          std::to_string(state.batches) + " batches, " + std::to_string(state.acknowledged) +
          " events acknowledged"};
}

}  // namespace zem::sim
