#include "app/livetrace/livetrace_commands.h"

#include <cstdlib>

#include "app/livetrace/livetrace_app.h"
#include "framework/cli/json_writer.h"

namespace zem::Tarvik {
namespace {

std::shared_ptr<LivetraceApp> RunningApp() {
  auto app = LivetraceApp::Instance();
  return app != nullptr && app->running() ? app : nullptr;
}

// The id as text: readers of JSON round numbers of this size.
JsonValue Row(uint64_t id, const std::string& name) {
  JsonValue row = JsonValue::Object();
  row.Add("sessionID", std::to_string(id)).Add("sessionName", name);
  return row;
}

void List(const CliArguments&, CliReply reply) {
  const auto app = RunningApp();
  if (app == nullptr) return reply.Error("Not running");
  JsonValue rows = JsonValue::Array();
  for (const auto& [id, name] : app->ListSessions()) rows.Append(Row(id, name));
  reply.Ok(rows.Text());
}

void Get(const CliArguments& arguments, CliReply reply) {
  const auto app = RunningApp();
  if (app == nullptr) return reply.Error("Not running");
  const uint64_t id = std::strtoull(arguments[0].c_str(), nullptr, 0);
  std::string name;
  if (app->GetSessionName(id, &name) != 0) return reply.Error("Session not found");
  JsonValue rows = JsonValue::Array();
  rows.Append(Row(id, name));
  reply.Ok(rows.Text());
}

}  // namespace

std::vector<CliCommand> LivetraceCommands() {
  return {{"livetrace/session/list", "", 0, 0, &List}, {"livetrace/session/get", "<session-id>", 1, 1, &Get}};
}

}  // namespace zem::Tarvik
