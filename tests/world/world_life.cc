#include "tests/world/world_life.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "sim/manager/random_config.h"

namespace zem::world {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

}  // namespace

std::string VmName(uint64_t number) { return "vm" + std::to_string(number); }
std::string ZoneOf(size_t network) { return sim::kZones[network / 2]; }
std::string SecurityPort(int number) { return "dvp-" + std::to_string(number); }
std::string SecurityVif(int number) { return "secured-" + std::to_string(number); }

const std::vector<WorldLife::Step>& WorldLife::Operations() {
  static const std::vector<Step> steps = {
      {"send a configuration", 6, &WorldLife::SendConfig},
      {"move an interface", 3, &WorldLife::MoveInterface},
      {"move an interface by file", 2, &WorldLife::MoveInterfaceByFile},
      {"visit maintenance mode", 1, &WorldLife::VisitMaintenance},
      {"ask for the checksum", 2, &WorldLife::AskChecksum},
      {"put logical switches", 8, &WorldLife::PutSwitches},
      {"delete logical switches", 5, &WorldLife::DeleteSwitches},
      {"cut a transaction", 2, &WorldLife::CutTransaction},
      {"power a VM", 16, &WorldLife::PowerVm},
      {"move a VM's interface", 12, &WorldLife::MoveVm},
      {"give up a move", 4, &WorldLife::FailMove},
      {"live-move a VM", 5, &WorldLife::LiveMove},
      {"relocate a VM", 3, &WorldLife::RelocateVm},
      {"clone a VM", 2, &WorldLife::CloneVm},
      {"secure or release a port", 5, &WorldLife::ToggleSecurityPort},
      {"restart the agent", 1, &WorldLife::RestartAgent},
      {"change solutions, profiles or rules", 12, &WorldLife::ChangeProtection},
      {"guests, users and connections change", 8, &WorldLife::ChangeGuests},
      {"alerts and captures are announced", 12, &WorldLife::AnnounceAlerts},
      {"the inventory changes", 6, &WorldLife::ChangeInventory},
      {"packets are traced, uplinks checked", 8, &WorldLife::TracePackets},
      {"neighbours or a bundle are asked for, the reputation changes", 8, &WorldLife::AskServices},
      {"captures are started, ended, uploaded", 6, &WorldLife::Capture},
      {"guests work for the flow records", 10, &WorldLife::MoveGuests},
      {"raise or clear an alarm", 12, &WorldLife::RaiseOrClearAlarm},
      {"report a status", 4, &WorldLife::ReportStatus},
  };
  return steps;
}

const std::vector<WorldLife::Step>& WorldLife::Misfortunes() {
  static const std::vector<Step> steps = {
      {"the proxy dies", 3, &WorldLife::StopProxy},
      {"the proxy comes", 4, &WorldLife::StartProxy},
      {"a connection breaks", 4, &WorldLife::BreakConnection},
      {"the manager is silent", 2, &WorldLife::FreezeManager},
      {"an APH goes or comes", 3, &WorldLife::LoseAph},
      {"another APH is master", 3, &WorldLife::ChangeMaster},
      {"a VIF is answered wrongly", 8, &WorldLife::MisanswerVif},
      {"the store goes or comes", 3, &WorldLife::BreakStore},
      {"a call to the store fails", 3, &WorldLife::FailStoreCall},
      {"streams of the store end", 2, &WorldLife::EndStreams},
      {"a command of the host fails", 6, &WorldLife::FailCommand},
      {"a call to the switch library fails", 5, &WorldLife::FailLibraryCall},
      {"the host management goes or comes", 2, &WorldLife::DropHostManagement},
      {"the disk fills up", 1, &WorldLife::FillDisk},
      {"the tool of maintenance mode fails", 1, &WorldLife::FailMaintenanceTool},
      {"the multiplexer goes or comes", 4, &WorldLife::BounceMultiplexer},
      {"a service VM goes or comes", 3, &WorldLife::MoveServiceVm},
      {"an alarm client goes or comes", 3, &WorldLife::AlarmClientGoesOrComes},
      {"an alarm client misbehaves", 3, &WorldLife::AlarmClientMisbehaves},
      {"the alerts' logger or Kafka goes or comes", 3, &WorldLife::DisturbAlerts},
      {"the inventory's daemon or manager fails", 4, &WorldLife::DisturbInventory},
      {"the dataplane agent or an upload fails", 5, &WorldLife::DisturbTraces},
      {"the host API or a bundle's script fails", 5, &WorldLife::DisturbServices},
      {"a capture tool, a look-up or an upload fails", 3, &WorldLife::DisturbCapture},
      {"flow records are switched, or their brokers go or come", 4, &WorldLife::DisturbFlow},
      {"the collector misanswers", 2, &WorldLife::CollectorMisanswers},
      {"the receiver of logons misanswers", 3, &WorldLife::LogonsMisanswered},
  };
  return steps;
}

WorldLife::WorldLife(const Options& options)
    : options_(options),
      random_(options.seed),
      managed_(options.seed % 4 == 3),
      node_(options.log, options.seed % 2 == 0) {
  alarms_ = std::make_unique<WorldAlarms>(*node_.manager, [this](uint64_t below) { return Pick(below); });
  for (size_t i = 0; i < kNetworks.size(); ++i) node_.manager->vifs().AddSwitch(kNetworks[i], ZoneOf(i));
  node_.manager->vifs().AddSwitch(kPortGroup, sim::kZones[0]);
  for (int i = 0; i < kVms; ++i) {
    sim::Vnic vnic;
    vnic.ls = kNetworks[Pick(kNetworks.size())];
    sim::Vnic second;
    second.ls = "db";
    // A second interface that stays where it is: an operation on one must not affect the other.
    node_.machines->Create({VmName(static_cast<uint64_t>(i))}, "/var/datastore",
                           i % 2 == 0 ? std::map<std::string, sim::Vnic>{{"eth0", vnic}}
                                      : std::map<std::string, sim::Vnic>{{"eth0", vnic}, {"eth1", second}});
  }
}

WorldLife::~WorldLife() { JoinVms(); }

void WorldLife::Say(const std::string& line) {
  if (!options_.verbose) return;
  const double at = std::chrono::duration<double>(node_.clock.Now().time_since_epoch()).count();
  std::printf("%.3f %s\n", at, line.c_str());
  std::fflush(stdout);
}

int WorldLife::WeightOf(const Step& step) const {
  const bool out =
      std::any_of(options_.without.begin(), options_.without.end(), [&step](const std::string& part) {
        return std::string_view(step.name).find(part) != std::string::npos;
      });
  return out ? 0 : step.weight;
}

void WorldLife::Do(const std::vector<Step>& steps) {
  uint64_t sum = 0;
  for (const Step& step : steps) sum += static_cast<uint64_t>(WeightOf(step));
  uint64_t left = Pick(sum);
  for (const Step& step : steps) {
    const auto weight = static_cast<uint64_t>(WeightOf(step));
    if (left < weight) {
      Say(step.name);
      (this->*step.run)();
      return;
    }
    left -= weight;
  }
}

Lines WorldLife::Run() {
  node_.StartAgent();
  running_ = true;
  node_.clock.RunFor(2min);
  SendConfig();
  // A store always knows its own node.
  PutSwitches();
  node_.clock.RunFor(1min);
  const TimePoint end = node_.clock.Now() + std::chrono::seconds(static_cast<int64_t>(options_.hours * 3600));
  while (node_.clock.Now() < end) {
    const TimePoint calm = node_.clock.Now() + std::chrono::seconds(60 + Pick(1200));
    while (node_.clock.Now() < calm) {
      node_.clock.RunFor(std::chrono::milliseconds(1 + (Chance(3) ? Pick(300) : Pick(45'000))));
      Chance(3) ? Do(Misfortunes()) : Do(Operations());
    }
    Calm();
    Lines lines = CheckAll();
    if (!lines.empty()) {
      char at[64];
      std::snprintf(at, sizeof(at), "at %.3f s:",
                    std::chrono::duration<double>(node_.clock.Now().time_since_epoch()).count());
      lines.insert(lines.begin(), at);
      return lines;
    }
  }
  return {};
}

}  // namespace zem::world
