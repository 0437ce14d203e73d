#include "framework/hostapi/lum_command.h"

#include "framework/cli/json_writer.h"
#include "framework/hostapi/lum_client.h"
#include "framework/log/log.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

const char* StatusWord(int status) {
  switch (status) {
    case LumLink::kUp:
      return "UP";
    case LumLink::kDown:
      return "DOWN";
    default:
      return "UNKNOWN";
  }
}

void GetLum(const CliArguments&, CliReply reply) {
  std::vector<LumClient::LinkStatus> links;
  if (const auto client = LumClient::Instance()) client->GetLinkStatus(&links);
  JsonValue rows = JsonValue::Array();
  for (const auto& [path, status] : links) {
    JsonValue row = JsonValue::Object();
    row.Add("Channel", path).Add("Status", StatusWord(status));
    rows.Append(std::move(row));
  }
  std::string text = rows.Text();
  ZLOG_INFO("CliServer: getting lum connection %s", text.c_str());
  reply.Ok(std::move(text));
}

}  // namespace

CliCommand LumCommand() { return {"get/lum", "", 0, 0, &GetLum}; }

}  // namespace zem::Tarvik
