#include "tests/world/world_life.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string_view>
#include <utility>

#include "app/zema/app/zema_app.h"
#include "platform/core/uuid.h"
#include "sim/control/json.h"
#include "sim/host/raw_sockets.h"
#include "sim/manager/random_config.h"
#include "sim/store/logical_switches.h"
#include "sim/switch/vif_ports.h"
#include "sim/truth/host_diff.h"

namespace zem::world {
namespace {

using namespace std::chrono_literals;
namespace switching = orlane::zem::switching;
using Steps = sim::VirtualMachines::Steps;

constexpr uint32_t kSwitchNumbers = 60;
constexpr auto kCallTimeout = 2min;
constexpr const char* kSecuredVm = "/var/datastore/secured/secured.cfg";
constexpr const char* kVnicSocket = "/etc/orlane/zemaVifDvp";
constexpr const char* kMigrationFile = "/tmp/zem/mvr_vnics_migration.json";
constexpr const char* kHostGroup = "Host Network";
// First digits of the VIFs that the manager assigns to the host's interface.
constexpr const char* kInterfaceVif = "d0";
constexpr const char* kInterfacePort = "e0";

std::string NumberedUuid(const std::string& kind, uint64_t number) {
  const std::string digits = std::to_string(number);
  return kind + "000000-0000-4000-8000-" + std::string(12 - digits.size(), '0') + digits;
}

// -1: the answer has no code.
int CodeOf(const std::string& answer) {
  const sim::Json json(cJSON_Parse(answer.c_str()));
  const cJSON* const bulk = cJSON_GetObjectItemCaseSensitive(json.get(), "logical_switch_bulk");
  if (const cJSON* const status = cJSON_GetObjectItemCaseSensitive(bulk, "status"); status != nullptr) {
    return status->valueint;
  }
  for (const char* member : {"host_config", "maintenance_mode_config_result"}) {
    const cJSON* const result = cJSON_GetObjectItemCaseSensitive(json.get(), member);
    const cJSON* const code = cJSON_GetObjectItemCaseSensitive(result, "error_code");
    if (result != nullptr) return code == nullptr ? 0 : code->valueint;
  }
  return -1;
}

}  // namespace

int WorldLife::Send(const std::string& member, const google::protobuf::Message& message) {
  sim::Manager::SendRequest request;
  request.vertical = kVertical;
  request.member = member;
  request.text = message.ShortDebugString();
  request.correlation_id = RandomUuidText();
  request.timeout = kCallTimeout;
  int number = 0;
  {
    const std::lock_guard lock(mutex_);
    number = ++sent_;
  }
  std::optional<std::pair<std::string, std::string>> config;
  if (const auto* const sent = dynamic_cast<const switching::HostConfigMsg*>(&message)) {
    config.emplace(sent->id(), sent->revision());
  }
  const std::string error =
      node_.manager->Send(request, [this, number, config](const sim::HostAnswer& answer) {
        const int code = answer.status.ok() ? CodeOf(sim::AnswerJson(kVertical, answer)) : -1;
        if (config) truth_.ConfigAnswered(config->first, config->second, code);
        const std::lock_guard lock(mutex_);
        ++ends_[number];
        outcomes_[number] = code;
      });
  if (!error.empty()) {
    const std::lock_guard lock(mutex_);
    ends_[number] = 1;
    outcomes_[number] = -1;
  }
  return number;
}

void WorldLife::SendConfig() {
  wanted_ = sim::MakeConfig(kNodeId, ++revision_, random_);
  last_config_ = Send("HostConfigMsg", wanted_);
}

bool WorldLife::InterfaceIsOut() {
  const sim::Json state = node_.host.Read();
  const cJSON* const interfaces = cJSON_GetObjectItemCaseSensitive(state.get(), "interfaces");
  const cJSON* const interface = cJSON_GetObjectItemCaseSensitive(interfaces, kInterface);
  const cJSON* const where = cJSON_GetObjectItemCaseSensitive(interface, "where");
  const char* const kind = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(where, "kind"));
  return kind != nullptr && std::string_view(kind) == "standard";
}

// Also moves it from one logical switch to another.
void WorldLife::MoveInterface() { SendMove(InterfaceIsOut() || Chance(3)); }

void WorldLife::SendMove(bool in) {
  wanted_ = sim::MakeConfig(kNodeId, ++revision_, random_);
  if (in) {
    ++moves_;
    sim::MoveInterfaceIn(kInterface, Chance(2) ? "db" : "log", NumberedUuid(kInterfaceVif, moves_),
                         NumberedUuid(kInterfacePort, moves_), &wanted_);
  } else {
    sim::MoveInterfaceOut(kInterface, kHostGroup, &wanted_);
  }
  last_config_ = Send("HostConfigMsg", wanted_);
}

// A tool of the host writes a file with the switch's uplinks as it knows them, and requests the migration.
void WorldLife::MoveInterfaceByFile() {
  if (!running_) return;
  ++moves_;
  const bool in = InterfaceIsOut();
  std::string pnics;
  for (const auto& pnic : wanted_.host_switches(1).pnic()) {
    pnics += std::string(pnics.empty() ? "" : ", ") + "{\"device_name\": \"" + pnic.device_name() +
             "\", \"uplink_name\": \"" + pnic.uplink_name() + "\"}";
  }
  const std::string place = in ? "\"logical_switch_id\": \"db\", \"logical_port_id\": \"" +
                                     NumberedUuid(kInterfacePort, moves_) + "\", \"vif_id\": \"" +
                                     NumberedUuid(kInterfaceVif, moves_) + "\", \"transport_zone_id\": \"" +
                                     sim::kZones[1] + "\""
                               : "\"port_group_name\": \"" + std::string(kHostGroup) + "\"";
  file_migration_ = "file-" + std::to_string(moves_);
  other_uplinks_ = true;
  std::filesystem::create_directories(std::filesystem::path(kMigrationFile).parent_path());
  std::ofstream(kMigrationFile, std::ios::trunc)
      << "{\"request_id\": \"" << file_migration_ << "\", \"migrate_to_ndvs\": " << (in ? "true" : "false")
      << ", \"host_switches\": [{\"host_switch_id\": \"" << sim::kSecondSwitch << "\", \"pnics\": [" << pnics
      << "], \"vnics\": [{\"vnic_id\": \"" << kInterface << "\", " << place << "}]}]}";
  // The agent that has not started yet refuses at once, and then nothing is written into the result file.
  const std::string refused = node_.app().Migrate(false, true);
  if (refused.empty()) return;
  Say(refused);
  file_migration_.clear();
}

int WorldLife::SendMaintenance(uint32_t state) {
  switching::MaintenanceModeConfigMsg message;
  message.set_transport_node_id(kNodeId);
  message.set_state(state);
  return Send("MaintenanceModeConfigMsg", message);
}

void WorldLife::VisitMaintenance() {
  SendMaintenance(static_cast<uint32_t>(1 + Pick(2)));
  node_.clock.RunFor(std::chrono::milliseconds(Pick(20'000)));
  SendMaintenance(0);
}

void WorldLife::AskChecksum() {
  switching::ChecksumMsg question;
  question.set_id(kNodeId);
  Send("ChecksumMsg", question);
}

void WorldLife::Modify(const orlane::zem::covedb::ModifyRequestMsg& request) {
  const rpc::Status status = node_.store->store().Modify({request});
  if (!status.ok()) Say("the store refused: " + std::to_string(status.code()));
}

// Without the store, the manager itself sends the logical switches of the host.
void WorldLife::SendSwitches(const std::set<uint32_t>& numbers, bool put) {
  switching::LogicalSwitchMsg message;
  ++barrier_;
  const uint64_t before = node_.manager->record().received_count();
  for (const uint32_t number : numbers) {
    auto* const info = message.add_logical_switch_info();
    info->set_transport_zone_id(sim::TransportZoneUuid(1));
    info->set_revision(static_cast<int32_t>(barrier_));
    info->set_logical_switch_id(sim::LogicalSwitchUuid(number));
    info->set_name("ls-" + std::to_string(number));
    info->set_operation(put ? 1 : 2);
    sent_switches_[info->logical_switch_id()] = {put ? info->revision() : -1, before};
  }
  Send("LogicalSwitchMsg", message);
}

int WorldLife::SendAllSwitches() {
  switching::LogicalSwitchBulkMsg message;
  message.set_continuation_flag(0);
  auto* const zone = message.add_logical_switches_of_tz();
  zone->set_transport_zone_id(sim::TransportZoneUuid(1));
  for (const uint32_t number : switches_) {
    auto* const info = zone->add_logical_switch_info();
    info->set_transport_zone_id(zone->transport_zone_id());
    info->set_revision(static_cast<int32_t>(barrier_));
    info->set_logical_switch_id(sim::LogicalSwitchUuid(number));
    info->set_name("ls-" + std::to_string(number));
  }
  sent_switches_.clear();
  listed_.clear();
  for (const uint32_t number : switches_) listed_.insert(sim::LogicalSwitchUuid(number));
  list_ = Send("LogicalSwitchBulkMsg", message);
  return *list_;
}

void WorldLife::PutSwitches() {
  if (managed_) {
    std::set<uint32_t> numbers;
    for (uint64_t i = 1 + Pick(8); i > 0; --i)
      numbers.insert(static_cast<uint32_t>(1 + Pick(kSwitchNumbers)));
    switches_.insert(numbers.begin(), numbers.end());
    return SendSwitches(numbers, true);
  }
  ++barrier_;
  const sim::SwitchRange range{static_cast<uint32_t>(1 + Pick(kSwitchNumbers)),
                               static_cast<uint32_t>(1 + Pick(8)), 2, static_cast<int32_t>(barrier_)};
  Modify(sim::PutLogicalSwitches(range, barrier_, true));
  for (uint32_t i = 0; i < range.count; ++i) switches_.insert(range.first + i);
}

void WorldLife::DeleteSwitches() {
  if (switches_.empty()) return;
  sim::SwitchRange range;
  range.first = *std::next(switches_.begin(), static_cast<long>(Pick(switches_.size())));
  range.count = 1;
  while (range.count < 4 && switches_.count(range.first + range.count) != 0) ++range.count;
  if (managed_) {
    std::set<uint32_t> numbers;
    for (uint32_t i = 0; i < range.count; ++i) numbers.insert(range.first + i);
    for (const uint32_t number : numbers) switches_.erase(number);
    // Sometimes the manager has had no contact for too long, and sends the complete list again.
    if (Chance(3)) return static_cast<void>(SendAllSwitches());
    SendSwitches(numbers, false);
    return node_.clock.RunFor(10s);
  }
  Modify(sim::DeleteLogicalSwitches(range, ++barrier_));
  for (uint32_t i = 0; i < range.count; ++i) switches_.erase(range.first + i);
  // A switch that returns within the same batch stays away, as required: a controller gives it another id, or
  // waits.
  node_.clock.RunFor(10s);
}

// Half of a transaction arrives, then the connection breaks; that half must be discarded when the store is
// back.
void WorldLife::CutTransaction() {
  if (managed_) return;
  const sim::SwitchRange range{static_cast<uint32_t>(1000 + Pick(1000)), 5, 2, 1};
  orlane::zem::covedb::ModifyRequestMsg whole = sim::PutLogicalSwitches(range, barrier_ + 1, true);
  whole.mutable_modify_msg()->RemoveLast();
  Modify(whole);
  node_.clock.RunFor(std::chrono::milliseconds(Pick(1500)));
  node_.store->StopListening();
  node_.clock.RunFor(std::chrono::milliseconds(Pick(5000)));
  ++barrier_;
  Modify(sim::DeleteLogicalSwitches(range, ++barrier_));
  node_.store->Listen();
}

// --- Requests of the host.

void WorldLife::Launch(const std::string& vm, std::function<Steps()> change) {
  {
    const std::lock_guard lock(mutex_);
    if (busy_.size() >= 3 || !busy_.insert(vm).second) return;
  }
  changes_.emplace_back([this, vm, change = std::move(change)] {
    bool good = true;
    std::string why;
    try {
      for (const sim::VmStep& step : change()) {
        if (step.good()) continue;
        good = false;
        why = step.op_id + ": " + (step.problem.empty() ? step.text : step.problem);
      }
    } catch (const std::runtime_error& error) {
      // The host itself fails, for example because the VM is off.
      why = error.what();
    }
    const std::lock_guard lock(mutex_);
    if (!good) unsure_.insert(vm);
    if (!why.empty()) Say(vm + ": " + why);
    busy_.erase(vm);
  });
}

void WorldLife::JoinVms() {
  for (NativeThread& thread : changes_) thread.Join();
  changes_.clear();
}

void WorldLife::PowerVm() {
  const std::string vm = VmName(Pick(kVms));
  const uint32_t opcode = Chance(2) ? 1 : 8;
  Launch(vm, [this, vm, opcode] {
    sim::VirtualMachines::Options options;
    options.opcode = opcode;
    const auto found = node_.machines->Find(vm);
    if (found.empty()) return Steps();
    return found.front().on ? node_.machines->PowerOff({vm}, options)
                            : node_.machines->PowerOn({vm}, options);
  });
}

void WorldLife::MoveVm() {
  const std::string vm = VmName(Pick(kVms));
  const std::string to = kNetworks[Pick(kNetworks.size())];
  Launch(vm, [this, vm, to] { return node_.machines->Move({vm}, "eth0", to, {}); });
}

void WorldLife::FailMove() {
  const std::string vm = VmName(Pick(kVms));
  const std::string to = kNetworks[Pick(kNetworks.size())];
  const bool back = Chance(2);
  Launch(vm, [this, vm, to, back] {
    const auto found = node_.machines->Find(vm);
    if (found.empty() || found.front().vnics.at("eth0").ls == to) return Steps();
    Steps steps = node_.machines->MoveFail(vm, "eth0", to, back, {});
    // A vNIC that the host has not connected again returns with the VM.
    if (!back) {
      const std::lock_guard lock(mutex_);
      unsure_.insert(vm);
    }
    return steps;
  });
}

// The VM runs on another host for a while, and the manager has it there.
void WorldLife::LiveMove() {
  const std::string vm = VmName(Pick(kVms));
  const Duration away = std::chrono::seconds(Pick(120));
  const bool elsewhere = Chance(2);
  const std::string to = Chance(2) ? kNetworks[Pick(kNetworks.size())] : "";
  Launch(vm, [this, vm, away, elsewhere, to] {
    const auto found = node_.machines->Find(vm);
    if (found.empty() || !found.front().on) return Steps();
    const sim::VirtualMachine machine = found.front();
    Steps steps = node_.machines->LiveOut(vm, sim::VirtualMachines::Part::kWhole, {});
    if (elsewhere) {
      for (const auto& [device, vnic] : machine.vnics) {
        const auto network = std::find(kNetworks.begin(), kNetworks.end(), vnic.ls);
        node_.manager->vifs().Place({vnic.vif,
                                     vnic.ls,
                                     "",
                                     ZoneOf(static_cast<size_t>(network - kNetworks.begin())),
                                     "5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a02",
                                     machine.path,
                                     {},
                                     ""});
      }
    }
    SleepFor(away);
    const Steps in = node_.machines->LiveIn(machine.folder(), machine.vnics.size() == 1 ? to : "",
                                            sim::VirtualMachines::Part::kWhole, {});
    steps.insert(steps.end(), in.begin(), in.end());
    return steps;
  });
}

void WorldLife::RelocateVm() {
  const std::string vm = VmName(Pick(kVms));
  const std::string folder = "/var/datastore/place" + std::to_string(++again_) + "/" + vm;
  Launch(vm, [this, vm, folder] { return node_.machines->Relocate(vm, folder, {}); });
}

// The folder is copied together with the files of its ports.
void WorldLife::CloneVm() {
  const std::string vm = VmName(Pick(kVms));
  if (!node_.machines->Find(kClone).empty()) return;
  Launch(kClone, [this, vm] {
    node_.machines->Clone(vm, kClone);
    return node_.machines->PowerOn({kClone}, {});
  });
}

std::string WorldLife::FirstSwitch() {
  for (const auto& each : sim::ReadHostSwitches()) {
    if (each.name == "ks-1") return each.id;
  }
  return "";
}

void WorldLife::AskSecurityPort(int number, bool attach) {
  const std::string dvs = FirstSwitch();
  if (dvs.empty()) return;
  if (!sim::ReadPortUse({dvs, SecurityPort(number)})) {
    const std::string error = sim::AddPort({dvs, SecurityPort(number)});
    if (!error.empty()) return Say(error);
  }
  const std::string vnic = attach ? SecurityVif(number) + ":eth0" : "";
  if (!sim::ConnectPort({dvs, SecurityPort(number)}, attach ? kSecuredVm : "", vnic)) return;
  switching::VifMsg message;
  message.set_operation(attach ? 1 : 0);
  auto* const vif = message.add_vif_attachment();
  vif->set_vif_id(SecurityVif(number));
  vif->set_origin_id(std::string(kPortGroup) + ":" + dvs);
  vif->set_logical_port_id(SecurityPort(number));
  vif->set_gcf_path(kSecuredVm);
  vif->set_id("eth0");
  const std::string data = message.SerializeAsString();
  const auto length = static_cast<int32_t>(data.size());
  std::string frame(sizeof(length), '\0');
  std::memcpy(frame.data(), &length, sizeof(length));
  const sim::RawExchange exchange = sim::ExchangeRaw(kVnicSocket, frame + data, true, 5s);
  if (!exchange.error.empty()) Say("the vNIC socket: " + exchange.error);
}

void WorldLife::ToggleSecurityPort() {
  const int number = static_cast<int>(Pick(kSecurityPorts));
  AskSecurityPort(number, !Chance(2));
}

void WorldLife::RestartAgent() {
  running_ = false;
  // A migration that the stopped agent had not begun is dropped, so no outcome of it is expected.
  file_migration_.clear();
  node_.StopAgent();
  truth_.AgentStops();
  node_.clock.RunFor(std::chrono::milliseconds(Pick(60'000)));
  node_.StartAgent();
  running_ = true;
}

void WorldLife::ChangeProtection() {
  node_.introspection.ChangeObjects(
      random_, [this](const orlane::zem::covedb::ModifyRequestMsg& request) { Modify(request); });
}
void WorldLife::ChangeGuests() { node_.guests->Change(random_); }
void WorldLife::MoveGuests() { node_.flow->Change(random_); }

void WorldLife::AnnounceAlerts() { node_.ids->Announce(random_); }

void WorldLife::TracePackets() { node_.traces->Ask(random_); }
void WorldLife::AskServices() { node_.services->Ask(random_); }
void WorldLife::ChangeInventory() { node_.inventory->Change(random_); }
void WorldLife::Capture() { node_.capture->Operate(random_); }
void WorldLife::RaiseOrClearAlarm() { alarms_->RaiseOrClear(); }
void WorldLife::ReportStatus() { alarms_->ReportStatus(); }

}  // namespace zem::world
