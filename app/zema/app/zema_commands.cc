#include "app/zema/app/zema_commands.h"

#include "app/zema/app/zema_app.h"
#include "framework/log.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

void Answer(CliReply& reply, std::string error, const char* done) {
  if (error.empty()) {
    reply.Ok(done);
  } else {
    reply.Error(std::move(error));
  }
}

}  // namespace

std::vector<CliCommand> ZemaCommands(ZemaApp& app) {
  return {{"zema/reset", "", 0, 0,
           [&app](const CliArguments&, CliReply reply) {
             ZLOG_INFO("CliServer: resetting host");
             app.Reset([shared = std::make_shared<CliReply>(std::move(reply))](std::string error) {
               Answer(*shared, std::move(error), "Removed all host switches and logical switches");
             });
           }},
          {"zema/reload_options", "", 0, 0, [&app](const CliArguments&, CliReply reply) {
             ZLOG_INFO("CliServer: reloading zema options from file");
             Answer(reply, app.ReloadOptions(), "Reloaded zema options from file");
           }}};
}

}  // namespace zem::Tarvik
