#include "sim/uploads/upload_commands.h"

#include <array>
#include <string_view>

#include "sim/control/command_table.h"
#include "sim/control/number.h"
#include "sim/uploads/upload_sink.h"

namespace zem::sim {
namespace {

struct AnswersName {
  std::string_view name;
  UploadSink::Answers answers;
};
constexpr std::array kAnswers = {
    AnswersName{"serve", UploadSink::Answers::kServe}, AnswersName{"status", UploadSink::Answers::kStatus},
    AnswersName{"close", UploadSink::Answers::kClose}, AnswersName{"hold", UploadSink::Answers::kHold}};

Json StateJson(const UploadSink::State& state) {
  Json result = JsonObject();
  AddMember(result.get(), "port", static_cast<uint32_t>(state.port));
  AddMember(result.get(), "thumbprint", state.thumbprint);
  AddMember(result.get(), "without_request", state.without_request);
  AddMember(result.get(), "count", static_cast<uint64_t>(state.uploads.size()));
  Json uploads = JsonArray();
  for (const UploadSink::Upload& upload : state.uploads) {
    Json item = JsonObject();
    AddMember(item.get(), "target", upload.target);
    AddMember(item.get(), "id", upload.id);
    AddMember(item.get(), "file", upload.file);
    AddMember(item.get(), "size", upload.size);
    AddMember(item.get(), "status", upload.status);
    AddMember(item.get(), "sha256", upload.sha256);
    AddItem(uploads.get(), std::move(item));
  }
  AddMember(result.get(), "uploads", std::move(uploads));
  return result;
}

void SetAnswers(UploadSink& sink, const Arguments& arguments, const Reply& reply) {
  const bool with_status = arguments[0] == "status";
  const size_t at = with_status ? 2 : 1;
  if (with_status && arguments.size() < 2) return reply.Fail("which status?");
  const auto status = NumberOf<unsigned>(with_status ? arguments[1] : "500");
  const auto count = NumberOf<int>(arguments.size() > at ? arguments[at] : "-1");
  if (!count || !status || *status < 400 || *status > 599) return reply.Fail("not a number");
  for (const AnswersName& each : kAnswers) {
    if (arguments[0] != each.name) continue;
    sink.SetAnswers(each.answers, *count, *status);
    return reply.Ok();
  }
  reply.Fail("no answer \"" + arguments[0] + "\"");
}

}  // namespace

void RegisterUploadCommands(CommandTable& table, UploadSink& sink) {
  table.Register({"state", "", "Shows port, certificate and what was uploaded.", 0, 0,
                  [&sink](const Arguments&, const Reply& reply) { reply.Ok(StateJson(sink.state())); }});
  table.Register(
      {"answers", "serve|status NUMBER|close|hold [COUNT]",
       "Sets how the next requests are answered, without a count all of them: status refuses, close "
       "breaks off in the middle of the body, hold never answers.",
       1, 3,
       [&sink](const Arguments& arguments, const Reply& reply) { SetAnswers(sink, arguments, reply); }});
  table.Register({"listen", "on|off", "Listens no more and closes all connections, or listens again.", 1, 1,
                  [&sink](const Arguments& arguments, const Reply& reply) {
                    if (arguments[0] != "on" && arguments[0] != "off") return reply.Fail("on or off");
                    sink.Listen(arguments[0] == "on");
                    reply.Ok();
                  }});
  table.Register({"certificate/change", "",
                  "Shows another certificate; the thumbprint of before is wrong then.", 0, 0,
                  [&sink](const Arguments&, const Reply& reply) {
                    sink.ChangeCertificate();
                    reply.Ok();
                  }});
  table.Register(
      {"clear", "", "Forgets what was uploaded.", 0, 0, [&sink](const Arguments&, const Reply& reply) {
         sink.Clear();
         reply.Ok();
       }});
}

}  // namespace zem::sim
