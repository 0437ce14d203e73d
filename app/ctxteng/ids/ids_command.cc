#include "app/ctxteng/ids/ids_command.h"

#include "app/ctxteng/ids/ids.h"
#include "framework/cli/json_writer.h"
#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

}  // namespace

zem::Tarvik::CliCommand IdsStatusCommand(Ids& ids) {
  return {"get/idsStatus", "", 0, 0, [&ids](const zem::Tarvik::CliArguments&, zem::Tarvik::CliReply reply) {
            ZLOG_INFO("CliServer: Getting IDS status");
            auto status = zem::JsonValue::Object();
            status.Add("ids_status_oa", ids.IsEnabled());
            status.Add("kafka_status_oa", ids.IsKafkaReady());
            reply.Ok(status.Text());
          }};
}

}  // namespace Ctxt
