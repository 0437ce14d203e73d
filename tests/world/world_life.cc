#include "tests/world/world_life.h"

#include <signal.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "app/zema/app/zema_app.h"
#include "platform/core/uuid.h"
#include "sim/control/json.h"
#include "sim/manager/random_config.h"
#include "sim/node/node_truth.h"
#include "sim/store/logical_switches.h"

namespace zem::world {
namespace {

using namespace std::chrono_literals;
namespace switching = orlane::zem::switching;
using Lines = std::vector<std::string>;
using Steps = sim::VirtualMachines::Steps;

constexpr const char* kVertical = "SwitchingVertical";
constexpr std::array kNetworks = {"web", "app", "db", "log"};
constexpr int kVms = 6;
constexpr uint32_t kDetach = 2;
constexpr uint32_t kSwitchNumbers = 60;
// Longer than the longest way back of everything: the stubs' spread, app-init, the store's reading, a resync.
constexpr auto kQuiet = 4min;
constexpr auto kPatience = 10min;
constexpr auto kCallTimeout = 2min;

std::string VmName(uint64_t number) { return "vm" + std::to_string(number); }
std::string ZoneOf(size_t network) { return sim::kZones[network / 2]; }

}  // namespace

const std::vector<WorldLife::Step>& WorldLife::Operations() {
  static const std::vector<Step> steps = {
      {"send a configuration", 6, &WorldLife::SendConfig},
      {"ask for the checksum", 2, &WorldLife::AskChecksum},
      {"put logical switches", 8, &WorldLife::PutSwitches},
      {"delete logical switches", 5, &WorldLife::DeleteSwitches},
      {"cut a transaction", 2, &WorldLife::CutTransaction},
      {"power a VM", 16, &WorldLife::PowerVm},
      {"move a VM's interface", 12, &WorldLife::MoveVm},
      {"give up a move", 4, &WorldLife::FailMove},
      {"live-move a VM", 5, &WorldLife::LiveMove},
      {"relocate a VM", 3, &WorldLife::RelocateVm},
      {"restart the agent", 1, &WorldLife::RestartAgent},
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
  };
  return steps;
}

WorldLife::WorldLife(const Options& options) : options_(options), random_(options.seed), node_(options.log) {
  for (size_t i = 0; i < kNetworks.size(); ++i) node_.manager->vifs().AddSwitch(kNetworks[i], ZoneOf(i));
  for (int i = 0; i < kVms; ++i) {
    sim::Vnic vnic;
    vnic.ls = kNetworks[Pick(kNetworks.size())];
    sim::Vnic second;
    second.ls = "db";
    // A second interface that stays where it is, so that an operation on one must leave the other alone.
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

void WorldLife::Do(const std::vector<Step>& steps) {
  uint64_t sum = 0;
  for (const Step& step : steps) sum += static_cast<uint64_t>(step.weight);
  uint64_t left = Pick(sum);
  for (const Step& step : steps) {
    if (left < static_cast<uint64_t>(step.weight)) {
      Say(step.name);
      (this->*step.run)();
      return;
    }
    left -= static_cast<uint64_t>(step.weight);
  }
}

Lines WorldLife::Run() {
  node_.StartAgent();
  node_.clock.RunFor(2min);
  SendConfig();
  // A store always knows the node that it is for.
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

// --- What the manager and the store ask.

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
  const std::string error = node_.manager->Send(request, [this, number](const sim::HostAnswer& answer) {
    int code = -1;
    if (answer.status.ok()) {
      const sim::Json json(cJSON_Parse(sim::Manager::AnswerJson(kVertical, answer).c_str()));
      const cJSON* const config = cJSON_GetObjectItemCaseSensitive(json.get(), "host_config");
      const cJSON* const error_code = cJSON_GetObjectItemCaseSensitive(config, "error_code");
      if (config != nullptr) code = error_code == nullptr ? 0 : error_code->valueint;
    }
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

void WorldLife::AskChecksum() {
  switching::ChecksumMsg question;
  question.set_id(kNodeId);
  Send("ChecksumMsg", question);
}

void WorldLife::Modify(const orlane::zem::covedb::ModifyRequestMsg& request) {
  const rpc::Status status = node_.store->store().Modify({request});
  if (!status.ok()) Say("the store refused: " + std::to_string(status.code()));
}

void WorldLife::PutSwitches() {
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
  Modify(sim::DeleteLogicalSwitches(range, ++barrier_));
  for (uint32_t i = 0; i < range.count; ++i) switches_.erase(range.first + i);
  // One that returns within the same batch stays away, as it has to: a controller gives it another id, or
  // time.
  node_.clock.RunFor(10s);
}

// Half of a transaction arrives, the connection goes, and what it held is gone when the store is there again.
void WorldLife::CutTransaction() {
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

// --- What the host asks.

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
      // The host itself does not do it: the VM is off, say.
      why = error.what();
    }
    const std::lock_guard lock(mutex_);
    if (!good) unsure_.insert(vm);
    if (!why.empty()) Say(vm + ": " + why);
    busy_.erase(vm);
  });
}

void WorldLife::JoinVms() {
  for (Thread& thread : changes_) thread.Join();
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
    // A vNIC that the host has not connected again comes back with the VM.
    if (!back) {
      const std::lock_guard lock(mutex_);
      unsure_.insert(vm);
    }
    return steps;
  });
}

// The VM runs on another host for a while; the manager knows it there.
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

void WorldLife::RestartAgent() {
  node_.StopAgent();
  node_.clock.RunFor(std::chrono::milliseconds(Pick(60'000)));
  node_.StartAgent();
}

// --- What goes wrong.

void WorldLife::StopProxy() { node_.manager->StopProxy(); }
void WorldLife::StartProxy() { node_.manager->StartProxy(); }

void WorldLife::BreakConnection() {
  constexpr std::array kEndpoints = {kInfoEndpoint, kForwardingEndpoint, kStoreEndpoint};
  node_.network.Break(kEndpoints[Pick(kEndpoints.size())]);
}

void WorldLife::FreezeManager() { node_.network.Freeze(kForwardingEndpoint, Chance(2)); }

void WorldLife::LoseAph() {
  const char* const aph = kAphs[Pick(3)];
  const bool gone = node_.manager->RemoveAph(aph, Chance(2));
  if (!gone || Chance(2)) {
    node_.manager->RemoveAph(aph, false);
    node_.manager->AddAph(aph, false);
  }
}

void WorldLife::ChangeMaster() { node_.manager->SetMaster(Chance(6) ? "" : kAphs[Pick(3)]); }

void WorldLife::MisanswerVif() {
  using Kind = sim::VifRule::Kind;
  using Of = sim::VifRule::Of;
  struct Row {
    Kind kind;
    Of of;
  };
  constexpr std::array kRows = {Row{Kind::kSilent, Of::kAny},  Row{Kind::kLost, Of::kAny},
                                Row{Kind::kError, Of::kAny},   Row{Kind::kEmptyPort, Of::kAttach},
                                Row{Kind::kServe, Of::kAny},   Row{Kind::kError, Of::kAttach},
                                Row{Kind::kLost, Of::kAttach}, Row{Kind::kSilent, Of::kDetach}};
  const Row& row = kRows[Pick(kRows.size())];
  sim::VifRule rule;
  rule.kind = row.kind;
  rule.of = row.of;
  rule.text = "the manager refuses";
  rule.count = static_cast<int>(1 + Pick(3));
  rule.delay = row.kind == Kind::kServe ? std::chrono::milliseconds(Pick(40'000)) : Duration{};
  node_.manager->vifs().SetRule("", rule);
}

void WorldLife::BreakStore() { Chance(2) ? node_.store->StopListening() : node_.store->Listen(); }

void WorldLife::FailStoreCall() {
  constexpr std::array kCalls = {"Modify", "Get", "Query"};
  node_.store->faults().SetStatus(kCalls[Pick(kCalls.size())], 14, static_cast<int>(1 + Pick(3)));
}

void WorldLife::EndStreams() {
  // The store has forgotten the stream, or has lost the thread of what it has told.
  constexpr std::array kCodes = {2, 12};
  node_.store->store().EndStreams("", rpc::Status(kCodes[Pick(2)], "the store ends it"));
}

void WorldLife::FailCommand() {
  constexpr std::array kTexts = {"^applyDvses(\\(|=|$)",          "^applyVtep(\\(|=|$)",
                                 "^GetTzToDvsMapping(\\(|=|$)",   "^createSpfPorts(\\(|=|$)",
                                 "^createOpaqueNetwork(\\(|=|$)", "^deleteDvs"};
  constexpr std::array kCalls = {"^op 11$", "^op 12$", "^op 15$", "^op 17$", "^op 19$"};
  constexpr std::array kEnds = {"close\t", "die\t", "exit\t", "half-text\t"};
  constexpr std::array kReplies = {"reply\tthe host refuses", "reply\t|~,;ok||~~|=garbage"};
  const bool call = Chance(2);
  const char* const what = call ? kCalls[Pick(kCalls.size())] : kTexts[Pick(kTexts.size())];
  // A call says by its status alone whether it was carried out; one that claims so is believed.
  const char* const how = Chance(2) ? kEnds[Pick(kEnds.size())] : call ? "status\t0" : kReplies[Pick(2)];
  node_.host.AddFault(std::string(what) + "\t" + std::to_string(Pick(2)) + "\t1\t" + how);
}

void WorldLife::FailLibraryCall() {
  constexpr std::array kFunctions = {"DVSKNL_CreatePort",      "DVSKNL_DestroyPort",
                                     "DVSKNL_SetPortProperty", "DVSKNL_GetPortProperty",
                                     "DVSKNL_SavePortData",    "DVSKNL_LoadPortData"};
  std::string error;
  if (!node_.switches.AddFault(std::string(kFunctions[Pick(kFunctions.size())]) +
                                   " skip=" + std::to_string(Pick(3)) + " count=1 ret=22",
                               &error)) {
    Say(error);
  }
}

void WorldLife::DropHostManagement() {
  switch (Pick(3)) {
    case 0:
      return node_.host_management->Drop();
    case 1:
      return node_.host_management->Stop();
    default:
      return node_.host_management->Start();
  }
}

// --- Quiet.

void WorldLife::Calm() {
  Say("calm");
  node_.network.Freeze(kForwardingEndpoint, false);
  node_.network.SetAway(kStoreEndpoint, false);
  node_.store->faults().Clear();
  node_.store->Listen();
  node_.host.ClearFaults();
  node_.switches.ClearFaults("");
  node_.manager->vifs().ClearRules();
  node_.host_management->Stop();
  node_.host_management->Start();
  node_.manager->StartProxy();
  for (const char* aph : kAphs) {
    node_.manager->RemoveAph(aph, false);
    node_.manager->AddAph(aph, false);
  }
  node_.manager->SetMaster(kAphs[Pick(3)]);
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

std::string WorldLife::StoredChecksum() {
  const uint64_t before = node_.manager->received_count();
  AskChecksum();
  for (int i = 0; i < 60; ++i) {
    node_.clock.RunFor(1s);
    for (const sim::Received& each : node_.manager->ReceivedFrom(kVertical, before)) {
      if (each.type != "com.orlane.zem.switching.ChecksumMsg") continue;
      const sim::Json json(cJSON_Parse(each.json.c_str()));
      const cJSON* const message = cJSON_GetObjectItemCaseSensitive(json.get(), "checksum");
      const cJSON* const checksum = cJSON_GetObjectItemCaseSensitive(message, "checksum");
      return cJSON_IsString(checksum) ? checksum->valuestring : "";
    }
  }
  return "(no answer)";
}

// The manager sends again what was not answered with success, or what the checksum does not confirm, and
// nothing else: what both confirm must hold.
void WorldLife::SettleConfig(Lines* lines) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    const std::string stored = StoredChecksum();
    if (stored == sim::ChecksumOf(wanted_) && OutcomeOf(last_config_).value_or(-1) == 0) {
      Await([this] { return sim::CheckHost(node_.host, wanted_); }, lines);
      return;
    }
    Say("the checksum is " + stored + ", sending the configuration again");
    last_config_ = Send("HostConfigMsg", wanted_);
    for (int i = 0; i < 150 && !OutcomeOf(last_config_); ++i) node_.clock.RunFor(1s);
    if (OutcomeOf(last_config_).value_or(-1) == 0 && StoredChecksum() != sim::ChecksumOf(wanted_)) {
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

// A host whose operation did not end well asks again, as an operation of its own: off, wherever it may be,
// and on.
void WorldLife::HealVms() {
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
  SettleConfig(&lines);
  if (!lines.empty()) return lines;
  HealVms();
  node_.clock.RunFor(kCallTimeout + 10s);
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
  Await([this] { return sim::CheckNetworks(node_.host, node_.store->store(), switches_, barrier_); }, &lines);
  Await([this] { return sim::CheckAllVifs(*node_.machines, *node_.manager, node_.host); }, &lines);
  Await([this] { return sim::CheckHealth(node_.switches, "up"); }, &lines);
  Await([this] { return sim::CheckManners(node_.switches, *node_.host_management); }, &lines);
  if (lines.empty() && Chance(3)) RemoveAndReturn(&lines);
  return lines;
}

void WorldLife::AllVmsOff(Lines* lines) {
  for (const sim::VirtualMachine& machine : node_.machines->All()) {
    if (!machine.on) continue;
    for (const sim::VmStep& step : node_.machines->PowerOff({machine.name}, {})) {
      if (!step.good()) lines->push_back(machine.name + " at its end: " + step.text + step.problem);
    }
  }
}

// The manager gives the host up, in the middle of whatever the store says, and takes it back later.
void WorldLife::RemoveAndReturn(Lines* lines) {
  AllVmsOff(lines);
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
    for (int i = 0; i < 150 && !OutcomeOf(number); ++i) node_.clock.RunFor(1s);
    if (OutcomeOf(number).value_or(-1) != 0) {
      lines->push_back("the removal ended with " + std::to_string(OutcomeOf(number).value_or(-1)));
    }
  }
  // What was under way when the host was given up must not come back behind it.
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
  // The manager writes the switches anew for a host that comes back.
  for (const uint32_t number : std::set<uint32_t>(switches_)) {
    ++barrier_;
    Modify(sim::PutLogicalSwitches({number, 1, 2, static_cast<int32_t>(barrier_)}, barrier_, true));
  }
  Await([this] { return sim::CheckNetworks(node_.host, node_.store->store(), switches_, barrier_); }, lines);
}

}  // namespace zem::world
