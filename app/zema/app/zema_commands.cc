#include "app/zema/app/zema_commands.h"

#include <algorithm>
#include <map>
#include <tuple>

#include "app/zema/app/zema_app.h"
#include "framework/cli/json_writer.h"
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

// What one answer holds at most.
constexpr size_t kMostRows = 2'000;

JsonValue Texts(const std::vector<std::string>& texts) {
  JsonValue list = JsonValue::Array();
  for (const std::string& text : texts) list.Append(text.c_str());
  return list;
}

void GetSwitches(const ZemaApp& app, CliReply reply) {
  const SwitchesView view = app.Switches();
  JsonValue switches = JsonValue::Array();
  for (const SwitchView& row : view.switches) {
    JsonValue json = JsonValue::Object();
    json.Add("name", row.name)
        .Add("id", row.id)
        .Add("mode", row.mode)
        .Add("mtu", row.mtu)
        .Add("uplinks", Texts(row.uplinks))
        .Add("endpoints", Texts(row.endpoints));
    switches.Append(std::move(json));
  }
  JsonValue answer = JsonValue::Object();
  answer.Add("known", view.known)
      .Add("config_id", view.config_id)
      .Add("revision", view.revision)
      .Add("switches", std::move(switches));
  reply.Ok(answer.Text());
}

// The same rows in two orders: by switch and port, or by VIF.
void GetPorts(const ZemaApp& app, const char* member, bool by_vif, CliReply reply) {
  PortsView view = app.Ports(kMostRows);
  std::sort(view.ports.begin(), view.ports.end(), [by_vif](const PortView& left, const PortView& right) {
    return by_vif ? std::tie(left.vif, left.host_switch, left.port) <
                        std::tie(right.vif, right.host_switch, right.port)
                  : std::tie(left.host_switch, left.port, left.vif) <
                        std::tie(right.host_switch, right.port, right.vif);
  });
  std::map<std::string, std::string> names;
  for (const SwitchView& host_switch : app.Switches().switches) names[host_switch.id] = host_switch.name;
  JsonValue rows = JsonValue::Array();
  for (const PortView& port : view.ports) {
    const auto name = names.find(port.host_switch);
    JsonValue json = JsonValue::Object();
    json.Add("vif", port.vif)
        .Add("switch", port.host_switch)
        .Add("switch_name", name == names.end() ? std::string() : name->second)
        .Add("port", port.port);
    rows.Append(std::move(json));
  }
  JsonValue answer = JsonValue::Object();
  answer.Add("known", view.known)
      .Add("left_out", uint64_t{view.total - view.ports.size()})
      .Add(member, std::move(rows));
  reply.Ok(answer.Text());
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
      {"get/switches", "", 0, 0,
       [&app](const CliArguments&, CliReply reply) { GetSwitches(app, std::move(reply)); }},
      {"get/ports", "", 0, 0,
       [&app](const CliArguments&, CliReply reply) { GetPorts(app, "ports", false, std::move(reply)); }},
      {"get/vifs", "", 0, 0,
       [&app](const CliArguments&, CliReply reply) { GetPorts(app, "vifs", true, std::move(reply)); }},
      {"zema/reload_options", "", 0, 0, [&app](const CliArguments&, CliReply reply) {
         ZLOG_INFO("CliServer: reloading zema options from file");
         Answer(reply, app.ReloadOptions(), "Reloaded zema options from file");
       }}};
}

}  // namespace zem::Tarvik
