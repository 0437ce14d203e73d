#include "app/zema/app/zema_commands.h"

#include "app/zema/app/zema_app.h"
#include "framework/log/log.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};
constexpr const char* kMigration = "zema/migration";

void Answer(CliReply& reply, std::string error, const char* done) {
  if (error.empty()) {
    reply.Ok(done);
  } else {
    reply.Error(std::move(error));
  }
}

void Migrate(ZemaApp& app, const CliArguments& arguments, CliReply reply) {
  if (arguments.empty()) return reply.Ok("");
  bool vm_ports = false;
  bool knl_pnic = false;
  std::string line = kMigration;
  for (const std::string& argument : arguments) {
    line += " " + argument;
    vm_ports = vm_ports || argument == "vm_ports";
    knl_pnic = knl_pnic || argument == "knl_pnic";
  }
  ZLOG_INFO("CliServer: %s.", line.c_str());
  if (!vm_ports && !knl_pnic) return reply.Error("Invalid command: " + line);
  const std::string done = std::string("scheduled task to") + (vm_ports ? " prepare vms ports" : "") +
                           (vm_ports && knl_pnic ? " and" : "") + (knl_pnic ? " migrate knls/pnics" : "");
  Answer(reply, app.Migrate(vm_ports, knl_pnic), done.c_str());
}

}  // namespace

std::vector<CliCommand> ZemaCommands(ZemaApp& app) {
  return {
      {kMigration, "[vm_ports] [knl_pnic]", 0, 2,
       [&app](const CliArguments& arguments, CliReply reply) { Migrate(app, arguments, std::move(reply)); }},
      {"zema/reset", "", 0, 0,
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
