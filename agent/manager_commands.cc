#include "agent/manager_commands.h"

#include "framework/json_writer.h"
#include "framework/log.h"
#include "mpaclient/mpa_client.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

void GetMpaClient(CliReply reply) {
  JsonValue rows = JsonValue::Array();
  for (const auto& [name, client] : MpaClient::All()) {
    JsonValue row = JsonValue::Object();
    row.Add("APP", name)
        .Add("STATUS", ConnectionStateName(client->connection_state()))
        .Add("COOKIEID", client->cookie());
    rows.Append(std::move(row));
  }
  const std::string text = rows.Text();
  ZLOG_INFO("CliServer: getting mpa connection %s", text.c_str());
  reply.Ok(text);
}

}  // namespace

std::vector<CliCommand> ManagerCommands() {
  return {{"get/mpaclient", "", 0, 0,
           [](const CliArguments&, CliReply reply) { GetMpaClient(std::move(reply)); }}};
}

}  // namespace zem::Tarvik
