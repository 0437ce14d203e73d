#include "bench/kill/sweep/sweep_host.h"

#include "bench/kill/sweep/sweep_shape.h"
#include "sim/manager/random_config.h"

namespace zem::bench {
namespace {

using sim::Json;
using sim::NumberAt;
using sim::TextAt;

constexpr const char* kMigrationFile = "/tmp/zem/mvr_vnics_migration.json";
constexpr const char* kMigrationResult = "/tmp/zem/mvr_vnics_migration_result.txt";

}  // namespace

// A tool that got no result repeats its request with a new file.
void SweepHost::MigrateByFile(bool in) {
  interface_in_ = in;
  // The physical NICs move with it.
  changed_by_tool_ = !in;
  const std::string id = "move-" + std::to_string(run_.NextNumber());
  const std::string where =
      in ? "\"logical_switch_id\": " + Quoted(kNetwork) + ", \"logical_port_id\": " + Quoted(kLogicalPort) +
               ", \"vif_id\": " + Quoted(kVif) + ", \"transport_zone_id\": " + Quoted(sim::kZones[1])
         : "\"port_group_name\": \"Management Network\"";
  const std::string file =
      "file/write " + std::string(kMigrationFile) + " '{\"request_id\": " + Quoted(id) +
      ", \"migrate_to_ndvs\": " + (in ? "true" : "false") +
      ", \"host_switches\": [{\"host_switch_id\": " + Quoted(SwitchId(2)) +
      (in ? ", \"pnics\": [{\"device_name\": \"vmnic3\", \"uplink_name\": \"u1\"}]" : "") +
      ", \"vnics\": [{\"vnic_id\": \"knl0\", " + where + "}]}]}'";
  const auto result = [id](const cJSON* read) {
    const std::string text = TextAt(read, "text");
    return text.find(Quoted(id)) != std::string::npos &&
           text.find("\"result\": \"Success\"") != std::string::npos;
  };
  run_.node().Do(file);
  const std::string look = std::string("file/read ") + kMigrationResult;
  run_.Begin(
      [look, result](Background::Node& node) {
        const std::string reason = node.Try("cli zema/migration knl_pnic");
        return reason.empty() ? node.Until(look, result) : reason;
      },
      [this, file, look, result](const std::string& reason) {
        if (reason.empty()) return;
        run_.node().Do(file);
        run_.Insist("cli zema/migration knl_pnic");
        run_.node().Await(look, SweepRun::kPatience, result);
      });
}

// Requests on the socket for vNICs of port groups get no answer: the host repeats those that were not carried
// out.
void SweepHost::TieSecurityPort(bool tied) {
  security_tied_ = tied;
  const std::string update =
      std::string("corvd/vnic 'operation: ") + (tied ? "1" : "0") +
      " vif_attachment { vif_id: \"vif-s\" origin_id: \"dvportgroup-7:" + kSecondSwitch +
      "\" logical_port_id: \"dvp-1\" gcf_path: \"/vm/s.cfg\" id: \"eth0\" }'";
  const std::string look = std::string("switch/ports ") + "ks-2 dvp-1";
  run_.Begin(
      [update, look, tied](Background::Node& node) {
        const std::string reason = node.Try(update);
        return reason.empty() ? node.Until(look, [tied](const cJSON* p) { return IsTied(p) == tied; })
                              : reason;
      },
      [this, update](const std::string& reason) {
        if (!reason.empty()) run_.Insist(update);
      });
}

// Nobody repeats a capture that the daemon's death has ended.
void SweepHost::Capture() {
  const std::string name = "capture-" + std::to_string(run_.NextNumber());
  const std::string file = "/var/" + name + ".pcap";
  run_.Begin(
      [name, file](Background::Node& node) {
        const std::string reason =
            node.Try("cli packet-capture/start " + name + " knl knl0 dir in file " + file + " -- duration 3");
        return reason.empty() ? node.Until("file/read --hex " + file, [](const cJSON*) { return true; })
                              : reason;
      },
      [](const std::string&) {});
}

std::string SweepHost::CaptureDisagreement() {
  const Json left = run_.node().Do("capture leftovers");
  return NumberAt(left.get(), "count") == 0 ? "" : "a capture has left" + Lines(sim::At(left.get(), "lines"));
}

void SweepHost::MakeSecurityPort() {
  const Json ports = run_.node().Do("switch/ports ks-2");
  if (sim::JsonText(ports.get()).find("dvp-1") == std::string::npos)
    run_.node().Do("switch/add-port ks-2 dvp-1");
}

bool SweepHost::IsTied(const cJSON* ports) {
  const std::string text = sim::JsonText(ports);
  return text.find("vif-s") != std::string::npos;
}

std::string SweepHost::SecurityDisagreement() {
  const Json ports = run_.node().Do("switch/ports ks-2 dvp-1");
  if (IsTied(ports.get()) != security_tied_) return "the port of the port group is" + Lines(ports.get());
  const Json vifs = run_.node().Do("manager vif/list dvportgroup-7");
  if ((NumberAt(vifs.get(), "count") != 0) != security_tied_) return "the manager has" + Lines(vifs.get());
  return {};
}

}  // namespace zem::bench
