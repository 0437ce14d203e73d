#include "app/ctxteng/idfw/idfw_commands.h"

#include <utility>

#include "app/ctxteng/base/engine_parts.h"
#include "app/ctxteng/idfw/idfw.h"
#include "framework/cli/json_writer.h"
#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

}  // namespace

zem::Tarvik::CliCommand IdfwStatusCommand(const Idfw& idfw, std::function<uint32_t()> active_clients) {
  return {"get/idfwStatus", "", 0, 0,
          [&idfw, active_clients = std::move(active_clients)](const zem::Tarvik::CliArguments&,
                                                              zem::Tarvik::CliReply reply) {
            ZLOG_INFO("CliServer: Getting IDFW status");
            auto status = zem::JsonValue::Object();
            status.Add("idfw_status_mp", idfw.GetStatus());
            status.Add("idfw_status_oa", (active_clients() & kIdfwBit) != 0);
            reply.Ok(status.Text());
          }};
}

}  // namespace Ctxt
