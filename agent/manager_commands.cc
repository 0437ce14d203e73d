#include "agent/manager_commands.h"

#include "framework/builtin_commands.h"
#include "mpaclient/mpa_client.h"

namespace zem::Tarvik {
namespace {

std::vector<MpaClientRow> Rows() {
  std::vector<MpaClientRow> rows;
  for (const auto& [name, client] : MpaClient::All()) {
    rows.push_back({name, static_cast<int>(client->connection_state()), client->cookie()});
  }
  return rows;
}

}  // namespace

std::vector<CliCommand> ManagerCommands() { return {MpaClientCommand(&Rows)}; }

}  // namespace zem::Tarvik
