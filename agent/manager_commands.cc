#include "agent/manager_commands.h"

#include "framework/cli/builtin_commands.h"
#include "framework/log/log.h"
#include "mpaclient/client_registry.h"

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

}  // namespace

CliCommand StopCommand(std::function<void()> stop) {
  return {"agent/stop", "", 0, 0, [stop = std::move(stop)](const CliArguments&, CliReply reply) {
            ZLOG_INFO("CliServer: stopping the agent");
            reply.Ok("The agent stops");
            stop();
          }};
}

std::vector<CliCommand> ManagerCommands() { return {MpaClientCommand(&Rows)}; }

}  // namespace zem::Tarvik
