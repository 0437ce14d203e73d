#include "tests/world/world_life.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string_view>
#include <utility>

#include "app/zema/app/zema_app.h"
#include "covedbclient/covedb_client.h"
#include "mpaclient/client_registry.h"
#include "mpaclient/mpa_client_private_base.h"
#include "sim/control/json.h"
#include "sim/manager/random_config.h"
#include "sim/sandbox/small_disk.h"
#include "sim/store/logical_switches.h"
#include "sim/switch/vif_ports.h"
#include "sim/truth/node_truth.h"

namespace zem::world {
namespace {

using namespace std::chrono_literals;
namespace switching = orlane::zem::switching;
using Lines = std::vector<std::string>;

constexpr uint32_t kDetach = 2;
constexpr uint32_t kLeaveMaintenance = 0;
constexpr uint32_t kEnterMaintenance = 1;
constexpr const char* kResultFile = "/tmp/zem/mvr_vnics_migration_result.txt";
// Longer than the longest recovery: the stubs' spread, app-init, the reading of the store, a resync.
constexpr auto kQuiet = 4min;
constexpr auto kPatience = 10min;
constexpr auto kLongestCall = 2min;

std::string Read(const std::string& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

void WorldLife::Calm() {
  Say("calm");
  node_.network.Freeze(kForwardingEndpoint, false);
  node_.network.SetAway(kStoreEndpoint, false);
  node_.store->faults().Clear();
  node_.store->Listen();
  node_.host.ClearFaults();
  node_.switches.ClearFaults("");
  node_.manager->vifs().ClearRules();
  static_cast<void>(sim::FreeDisk(kStateFolder));
  std::filesystem::remove(sim::HostState::DefaultRoot() + "/host/zemcli.result");
  node_.host_management->Stop();
  node_.host_management->Start();
  node_.manager->StartProxy();
  for (const char* aph : kAphs) {
    node_.manager->RemoveAph(aph, false);
    node_.manager->AddAph(aph, false);
  }
  node_.manager->SetMaster(kAphs[Pick(3)]);
  node_.introspection.Calm();
  node_.guests->Calm();
  node_.ids->Calm();
  node_.inventory->Calm();
  node_.traces->Calm();
  node_.services->Calm();
  node_.capture->Calm();
  node_.flow->Calm();
  alarms_->Calm();
  JoinVms();
  node_.clock.RunFor(kQuiet);
}

void WorldLife::Await(const std::function<Lines()>& check, Lines* lines) {
  const TimePoint limit = node_.clock.Now() + kPatience;
  Lines found = check();
  while (!found.empty() && node_.clock.Now() < limit) {
    node_.clock.RunFor(5s);
    found = check();
  }
  lines->insert(lines->end(), found.begin(), found.end());
}

std::optional<int> WorldLife::OutcomeOf(int number) {
  const std::lock_guard lock(mutex_);
  const auto found = outcomes_.find(number);
  return found == outcomes_.end() ? std::nullopt : std::optional(found->second);
}

// Also returns -1 when there is no answer.
int WorldLife::AwaitOutcome(int number) {
  for (int i = 0; i < 150 && !OutcomeOf(number); ++i) node_.clock.RunFor(1s);
  return OutcomeOf(number).value_or(-1);
}

std::string WorldLife::StoredChecksum() {
  const uint64_t before = node_.manager->record().received_count();
  AskChecksum();
  for (int i = 0; i < 60; ++i) {
    node_.clock.RunFor(1s);
    for (const sim::Received& each : node_.manager->record().ReceivedFrom(kVertical, before)) {
      if (each.type != "com.orlane.zem.switching.ChecksumMsg") continue;
      const sim::Json json(cJSON_Parse(each.json.c_str()));
      const cJSON* const message = cJSON_GetObjectItemCaseSensitive(json.get(), "checksum");
      const cJSON* const checksum = cJSON_GetObjectItemCaseSensitive(message, "checksum");
      return cJSON_IsString(checksum) ? checksum->valuestring : "";
    }
  }
  return "(no answer)";
}

// The manager repeats only what was not answered with success or what the checksum does not confirm.
// Everything that both confirm must be in force.
void WorldLife::SettleConfig(Lines* lines) {
  if (std::exchange(other_uplinks_, false)) SendConfig();
  for (int attempt = 0; attempt < 5; ++attempt) {
    const std::string stored = StoredChecksum();
    if (stored == sim::ChecksumOf(wanted_) && OutcomeOf(last_config_).value_or(-1) == 0) {
      Await([this] { return sim::CheckHost(node_.host, wanted_); }, lines);
      Await([this] { return sim::CheckInterfaces(node_.host, wanted_); }, lines);
      return;
    }
    Say("the checksum is " + stored + ", sending the configuration again");
    last_config_ = Send("HostConfigMsg", wanted_);
    if (AwaitOutcome(last_config_) == 0 && StoredChecksum() != sim::ChecksumOf(wanted_)) {
      lines->push_back("the configuration was answered with success, and the checksum differs");
      return;
    }
  }
  lines->push_back("the last configuration never took hold: code " +
                   std::to_string(OutcomeOf(last_config_).value_or(-1)));
}

void WorldLife::AskAgain(const std::string& vm) {
  const auto found = node_.machines->Find(vm);
  if (found.empty()) return;
  for (const auto& [device, vnic] : found.front().vnics) {
    for (const char* network : kNetworks) {
      node_.machines->Ask(vm, device, kDetach, "again" + std::to_string(++again_) + "-1", vnic.vif, network,
                          {});
    }
  }
}

// The state of a logical switch that the host acknowledged last has to be in force; for switches not sent
// since the last list, that list counts.
Lines WorldLife::CheckAcknowledged() {
  Lines lines;
  const sim::Json networks = node_.host.Networks();
  if (list_ && OutcomeOf(*list_) == 0) {
    const cJSON* network = nullptr;
    cJSON_ArrayForEach(network, networks.get()) {
      if (sent_switches_.count(network->string) == 0 && listed_.count(network->string) == 0) {
        lines.push_back(std::string("has network ") + network->string + " which the last list does not have");
      }
    }
    for (const std::string& uuid : listed_) {
      if (sent_switches_.count(uuid) == 0 &&
          cJSON_GetObjectItemCaseSensitive(networks.get(), uuid.c_str()) == nullptr) {
        lines.push_back("lacks network " + uuid + " of the last list");
      }
    }
  }
  for (const sim::Received& each : node_.manager->record().ReceivedFrom(kVertical, 0)) {
    if (each.type != "com.orlane.zem.switching.LogicalSwitchMsg") continue;
    const sim::Json json(cJSON_Parse(each.json.c_str()));
    const cJSON* const message = cJSON_GetObjectItemCaseSensitive(json.get(), "logical_switch");
    const cJSON* info = nullptr;
    cJSON_ArrayForEach(info, cJSON_GetObjectItemCaseSensitive(message, "logical_switch_info")) {
      const char* const uuid =
          cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(info, "logical_switch_id"));
      const cJSON* const revision = cJSON_GetObjectItemCaseSensitive(info, "revision");
      const auto sent = sent_switches_.find(uuid == nullptr ? "" : uuid);
      if (sent == sent_switches_.end() || each.number <= sent->second.after || revision == nullptr ||
          revision->valueint != sent->second.revision) {
        continue;
      }
      const bool there = cJSON_GetObjectItemCaseSensitive(networks.get(), uuid) != nullptr;
      if (there != (sent->second.revision != -1)) {
        lines.push_back(std::string("logical switch ") + uuid + " was acknowledged with revision " +
                        std::to_string(sent->second.revision) + " and is " + (there ? "" : "not ") + "there");
      }
    }
  }
  return lines;
}

Lines WorldLife::CheckSwitches() {
  return sim::CheckNetworks(node_.host, node_.store->store(), switches_, managed_ ? 0 : barrier_);
}

// The manager sends the complete list until the host has accepted it.
void WorldLife::SettleSwitches(Lines* lines) {
  if (!managed_) return Await([this] { return CheckSwitches(); }, lines);
  Await([this] { return CheckAcknowledged(); }, lines);
  for (int attempt = 0; attempt < 5; ++attempt) {
    const int number = SendAllSwitches();
    if (AwaitOutcome(number) != 0) continue;
    const Lines found = CheckSwitches();
    lines->insert(lines->end(), found.begin(), found.end());
    return;
  }
  lines->push_back("the manager's logical switches are not taken");
}

void WorldLife::SettleMaintenance(Lines* lines) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    const int number = SendMaintenance(kLeaveMaintenance);
    if (AwaitOutcome(number) == 0) return;
  }
  lines->push_back("maintenance mode is not left");
}

// Only while no VM is on.  A restart must not end the maintenance mode.
void WorldLife::CheckMaintenance(Lines* lines) {
  Say("maintenance");
  const int number = SendMaintenance(kEnterMaintenance);
  if (const int code = AwaitOutcome(number); code != 0) {
    lines->push_back("maintenance mode is refused: " + std::to_string(code));
  }
  if (Chance(2)) {
    RestartAgent();
    node_.clock.RunFor(2min);
  }
  if (const std::string mode = Read(sim::HostState::DefaultRoot() + "/host/zemcli.mode");
      mode != "enabled\n") {
    lines->push_back("in maintenance mode the host's tool has [" + mode + "]");
  }
  Await([this] { return sim::CheckHealth(node_.switches, "down"); }, lines);
  SettleMaintenance(lines);
  if (const std::string mode = Read(sim::HostState::DefaultRoot() + "/host/zemcli.mode");
      mode != "disabled\n") {
    lines->push_back("out of maintenance mode the host's tool has [" + mode + "]");
  }
  Await([this] { return sim::CheckHealth(node_.switches, "up"); }, lines);
}

// Every request of a tool has an outcome in its file, good or bad.
void WorldLife::CheckFileMigration(Lines* lines) {
  if (file_migration_.empty()) return;
  Await(
      [this] {
        const std::string result = Read(kResultFile);
        return result.find("\"" + file_migration_ + "\"") == std::string::npos
                   ? Lines{"no outcome of " + file_migration_ + " in [" + result + "]"}
                   : Lines();
      },
      lines);
  file_migration_.clear();
}

// The channel to the manager is whole, and its tables have no entries left from earlier work.
Lines WorldLife::CheckChannel() {
  const auto client = std::dynamic_pointer_cast<MpaClientPrivateBase>(ClientRegistry::Get(kVertical));
  if (client == nullptr) return {"the vertical has no client"};
  const auto now = client->snapshot();
  const struct {
    const char* what;
    bool good;
  } rows[] = {
      {"a stub for each APH", now.stubs.size() == std::size(kAphs)},
      {"the manager's master", now.master_stub && now.master == node_.manager->Master()},
      {"no call under way", now.in_flight == 0},
      {"no timer", now.timers == 0},
      {"no update to come", !now.update_pending},
      {"a connection", client->IsConnected()},
      {"a handshake", client->app_init_completed()},
      {"no write to the store left", node_.store_client().IsPendingModificationReqEmpty()},
  };
  Lines lines;
  for (const auto& row : rows) {
    if (!row.good) lines.push_back(std::string("the channel does not have ") + row.what);
  }
  return lines;
}

Lines WorldLife::CheckPorts() {
  std::set<std::string> secured;
  Lines lines;
  const std::string dvs = FirstSwitch();
  for (int i = 0; i < kSecurityPorts; ++i) {
    secured.insert(SecurityVif(i));
    if (!sim::ReadPortUse({dvs, SecurityPort(i)})) continue;
    const Lines found = sim::CheckSecurityPort(*node_.manager, dvs, SecurityPort(i), SecurityVif(i));
    lines.insert(lines.end(), found.begin(), found.end());
  }
  const Lines found = sim::CheckAllVifs(*node_.machines, *node_.manager, node_.host, secured, false);
  lines.insert(lines.end(), found.begin(), found.end());
  return lines;
}

void WorldLife::RemoveClone(Lines* lines) {
  const auto found = node_.machines->Find(kClone);
  if (found.empty()) return;
  if (found.front().on) {
    for (const sim::VmStep& step : node_.machines->PowerOff({kClone}, {})) {
      if (!step.good()) lines->push_back("the clone at its end: " + step.text + step.problem);
    }
  }
  node_.machines->Delete(kClone, false);
}

// After a failed operation the host begins a new one: it powers the VM off, wherever it may be, and on again.
void WorldLife::HealVms() {
  // Requests at a port group get no answer, so those that failed while the manager was away are repeated.
  const std::string dvs = FirstSwitch();
  for (int i = 0; i < kSecurityPorts; ++i) {
    const auto use = sim::ReadPortUse({dvs, SecurityPort(i)});
    if (use) AskSecurityPort(i, !use->vnic.empty());
  }
  std::set<std::string> unsure;
  {
    const std::lock_guard lock(mutex_);
    unsure.swap(unsure_);
  }
  for (const std::string& vm : unsure) {
    Say("asking again for " + vm);
    const auto found = node_.machines->Find(vm);
    if (found.empty()) continue;
    if (found.front().on) node_.machines->PowerOff({vm}, {});
    AskAgain(vm);
    for (const sim::VmStep& step : node_.machines->PowerOn({vm}, {})) {
      if (step.good()) continue;
      const std::lock_guard lock(mutex_);
      unsure_.insert(vm);
      Say(vm + " " + step.device + ": " + (step.problem.empty() ? step.text : step.problem));
    }
  }
}

Lines WorldLife::CheckAll() {
  Lines lines;
  CheckFileMigration(&lines);
  SettleConfig(&lines);
  SettleMaintenance(&lines);
  if (!lines.empty()) return lines;
  HealVms();
  node_.clock.RunFor(kLongestCall + 10s);
  {
    const std::lock_guard lock(mutex_);
    for (const std::string& vm : unsure_) lines.push_back(vm + " does not come up though all is well");
    for (int number = 1; number <= sent_; ++number) {
      const auto ends = ends_.find(number);
      const int count = ends == ends_.end() ? 0 : ends->second;
      if (count != 1)
        lines.push_back("call " + std::to_string(number) + " ended " + std::to_string(count) + " times");
    }
  }
  SettleSwitches(&lines);
  Await([this] { return CheckPorts(); }, &lines);
  Await([this] { return CheckChannel(); }, &lines);
  Await([this] { return node_.introspection.Check(node_.store->store()); }, &lines);
  Await([this] { return node_.guests->Check([this] { node_.clock.Settle(); }); }, &lines);
  Await([this] { return node_.ids->Check(); }, &lines);
  Await([this] { return node_.inventory->Check(); }, &lines);
  Await([this] { return node_.traces->Check([this](Duration time) { node_.clock.RunFor(time); }); }, &lines);
  Await([this] { return node_.services->Check(); }, &lines);
  Await([this] { return node_.capture->Check(); }, &lines);
  if (lines.empty() && Chance(4)) Await([this] { return node_.capture->CheckOne(); }, &lines);
  Await([this] { return node_.flow->Check(); }, &lines);
  Await([this] { return alarms_->Check(); }, &lines);
  Await([this] { return sim::CheckHealth(node_.switches, "up"); }, &lines);
  Await([this] { return sim::CheckManners(node_.switches, *node_.host_management); }, &lines);
  Await([this] { return truth_.CheckWhy(); }, &lines);
  Await([this] { return truth_.CheckStatus(); }, &lines);
  const Lines uncounted = truth_.CheckMetrics();
  lines.insert(lines.end(), uncounted.begin(), uncounted.end());
  if (lines.empty() && Chance(4)) TakeAPeerAway(&lines);
  if (lines.empty() && Chance(2)) RemoveClone(&lines);
  if (lines.empty() && Chance(3)) RemoveAndReturn(&lines);
  return lines;
}

// The status tells of a peer that is away, and no longer when it is back.
void WorldLife::TakeAPeerAway(Lines* lines) {
  struct Peer {
    const char* part;
    std::function<void()> go;
    std::function<void()> come;
  };
  const std::array peers = {
      Peer{"manager", [this] { node_.manager->StopProxy(); }, [this] { node_.manager->StartProxy(); }},
      Peer{"store", [this] { node_.store->StopListening(); }, [this] { node_.store->Listen(); }},
      Peer{"host management link", [this] { node_.host_management->Stop(); },
           [this] { node_.host_management->Start(); }},
  };
  const Peer& peer = peers[Pick(peers.size())];
  Say(std::string("away for the status: ") + peer.part);
  peer.go();
  // The store's client keeps a connection that it has.
  if (peer.part == std::string_view("store")) node_.network.Break(kStoreEndpoint);
  node_.clock.RunFor(10s);
  if (!truth_.IsAtFault(peer.part))
    lines->push_back(std::string("the status does not miss the ") + peer.part);
  peer.come();
  Await([this] { return truth_.CheckStatus(); }, lines);
}

void WorldLife::AllVmsOff(Lines* lines) {
  for (const sim::VirtualMachine& machine : node_.machines->All()) {
    if (!machine.on) continue;
    for (const sim::VmStep& step : node_.machines->PowerOff({machine.name}, {})) {
      if (!step.good()) lines->push_back(machine.name + " at its end: " + step.text + step.problem);
    }
  }
}

// Interfaces and port groups release what they hold of the switches.
void WorldLife::LeaveSwitches(Lines* lines) {
  for (int i = 0; i < kSecurityPorts; ++i) AskSecurityPort(i, false);
  if (!InterfaceIsOut()) {
    SendMove(false);
    node_.clock.RunFor(1min);
    SettleConfig(lines);
  }
  node_.clock.RunFor(10s);
}

// The manager removes the host in the middle of the store's changes, and adds it again later.
void WorldLife::RemoveAndReturn(Lines* lines) {
  AllVmsOff(lines);
  if (!lines->empty()) return;
  LeaveSwitches(lines);
  if (Chance(2)) CheckMaintenance(lines);
  if (!lines->empty()) return;
  const bool reset = Chance(3);
  Say(reset ? "reset" : "removal");
  for (uint64_t i = Pick(4); i > 0; --i) {
    PutSwitches();
    node_.clock.RunFor(std::chrono::milliseconds(Pick(2500)));
  }
  const switching::HostConfigMsg removal = sim::MakeRemoval();
  if (reset) {
    bool done = false;
    std::string error;
    node_.app().Reset([&](std::string text) {
      const std::lock_guard lock(mutex_);
      error = std::move(text);
      done = true;
    });
    for (int i = 0; i < 120; ++i) {
      node_.clock.RunFor(1s);
      const std::lock_guard lock(mutex_);
      if (done) break;
    }
    if (!done || !error.empty()) lines->push_back("reset: " + (done ? error : "no answer"));
  } else {
    const int number = Send("HostConfigMsg", removal);
    if (AwaitOutcome(number) != 0) {
      lines->push_back("the removal ended with " + std::to_string(OutcomeOf(number).value_or(-1)));
    }
  }
  sent_switches_.clear();
  list_.reset();
  // Work in progress when the host was removed must not reappear afterwards.
  node_.clock.RunFor(30s);
  Await([this, &removal] { return sim::CheckHost(node_.host, removal); }, lines);
  if (!reset) Await([this] { return sim::CheckNetworks(node_.host, node_.store->store(), {}, 0); }, lines);
  if (Chance(4)) RestartAgent();
  wanted_ = sim::MakeConfig(kNodeId, ++revision_, random_);
  last_config_ = Send("HostConfigMsg", wanted_);
  node_.clock.RunFor(1min);
  SettleConfig(lines);
  PutSwitches();
  node_.clock.RunFor(30s);
  // The source of the logical switches writes them again for a host that comes back.
  for (const uint32_t number : std::set<uint32_t>(managed_ ? std::set<uint32_t>() : switches_)) {
    ++barrier_;
    Modify(sim::PutLogicalSwitches({number, 1, 2, static_cast<int32_t>(barrier_)}, barrier_, true));
  }
  SettleSwitches(lines);
}

}  // namespace zem::world
