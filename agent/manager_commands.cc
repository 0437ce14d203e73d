#include "agent/manager_commands.h"

#include "framework/cli/builtin_commands.h"
#include "framework/cli/json_writer.h"
#include "framework/log/log.h"
#include "mpaclient/client_registry.h"
#include "mpaclient/verticals.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

std::vector<MpaClientRow> Rows() {
  std::vector<MpaClientRow> rows;
  for (const auto& [name, client] : ClientRegistry::All()) {
    rows.push_back({name, static_cast<int>(client->connection_state()), client->cookie()});
  }
  return rows;
}

// A vertical that only answers has no road of its own.
const char* StateWord(const std::string& name, const MpaClient& client) {
  const Vertical* const vertical = FindVertical(name);
  if (vertical != nullptr && vertical->traits.only_serves) return "serves";
  return client.connection_state() == MpaClient::kConnected ? "up" : "down";
}

// The verticals in order of name, with what they have sent and received.
void GetVerticals(const CliArguments&, CliReply reply) {
  JsonValue rows = JsonValue::Array();
  for (const auto& [name, client] : ClientRegistry::All()) {
    const MpaClient::Figures figures = client->figures();
    const auto age = std::chrono::duration_cast<std::chrono::seconds>(figures.state_age);
    JsonValue row = JsonValue::Object();
    row.Add("name", name)
        .Add("state", StateWord(name, *client))
        .Add("seconds", int64_t{age.count()})
        .Add("received", figures.received)
        .Add("sent", figures.sent)
        .Add("failed", figures.send_failures)
        .Add("p99_us", figures.callback_p99_us)
        .Add("max_us", figures.callback_max_us);
    rows.Append(std::move(row));
  }
  JsonValue answer = JsonValue::Object();
  answer.Add("verticals", std::move(rows));
  reply.Ok(answer.Text());
}

}  // namespace

CliCommand StopCommand(std::function<void()> stop) {
  return {"agent/stop", "", 0, 0, [stop = std::move(stop)](const CliArguments&, CliReply reply) {
            ZLOG_INFO("CliServer: stopping the agent");
            reply.Ok("The agent stops");
            stop();
          }};
}

std::vector<CliCommand> ManagerCommands() {
  return {MpaClientCommand(&Rows), {"get/verticals", "", 0, 0, &GetVerticals}};
}

}  // namespace zem::Tarvik
