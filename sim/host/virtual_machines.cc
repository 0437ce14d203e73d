#include "sim/host/virtual_machines.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "sim/control/invented_id.h"
#include "sim/switch/tree/state_tree.h"

namespace zem::sim {
namespace {

namespace fs = std::filesystem;

constexpr uint32_t kDetach = 2;
constexpr uint32_t kAttachToVif = 8;
constexpr uint32_t kAttachLiveMove = 9;
constexpr uint32_t kDetachLiveMove = 10;
constexpr size_t kRemembered = 100000;
// On a host with more ports, only the VIF's own ports are searched for it.
constexpr size_t kFewPorts = 300;
// With at least this many steps, one walk over all ports is worth its time even on such a host.
constexpr size_t kManySteps = 20;

constexpr const char* kAttachPending = "attach_port";
constexpr const char* kDetachPending = "detach_port";

int64_t Microseconds(Duration duration) {
  return std::chrono::duration_cast<std::chrono::microseconds>(duration).count();
}

bool Matches(const std::string& uuid, const cJSON* machine, const std::string& pattern) {
  const char* const text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(machine, "name"));
  const std::string_view name = text == nullptr || *text == '\0' ? std::string_view(uuid) : text;
  if (pattern.ends_with('*'))
    return name.starts_with(std::string_view(pattern).substr(0, pattern.size() - 1));
  return name == pattern || uuid == pattern;
}

// A port group wants only security settings for its port: the port belongs to the host and stays.
bool IsPortGroup(const std::string& ls) { return ls.starts_with("dvportgroup-"); }

bool FewPorts() {
  size_t count = 0;
  for (const std::string& dvs : tree::List(tree::SwitchesDir()).value_or(std::vector<std::string>())) {
    count += tree::List(tree::SwitchDir(dvs) + "/ports").value_or(std::vector<std::string>()).size();
  }
  return count <= kFewPorts;
}

std::string Names(const std::vector<PortPlace>& places) {
  std::string names;
  for (const PortPlace& place : places) names += (names.empty() ? "" : ", ") + place.port;
  return names;
}

std::vector<PortPlace> LikelyPorts(const VmStep& step) {
  std::vector<PortPlace> likely;
  if (tree::GoodName(step.text)) {
    for (const std::string& dvs : tree::List(tree::SwitchesDir()).value_or(std::vector<std::string>())) {
      likely.push_back({dvs, step.text});
    }
  }
  for (const PortPlace& place : PortFiles(step.path.substr(0, step.path.rfind('/')))) {
    if (std::find(likely.begin(), likely.end(), place) == likely.end()) likely.push_back(place);
  }
  return likely;
}

Vnic& VnicOf(VirtualMachine* machine, const std::string& device) {
  const auto found = machine->vnics.find(device);
  if (found == machine->vnics.end()) throw std::runtime_error(machine->name + " has no vNIC " + device);
  return found->second;
}

void NeedOn(const VirtualMachine& machine, bool on) {
  if (machine.on != on) throw std::runtime_error(machine.name + (on ? " is off" : " is on"));
}

}  // namespace

// VMs that are reserved for one change, so that no other change touches them.
class VirtualMachines::Claim {
 public:
  explicit Claim(VirtualMachines* owner) : owner_(owner) {}
  ~Claim() {
    const std::lock_guard lock(owner_->mutex_);
    for (const std::string& uuid : uuids_) owner_->busy_.erase(uuid);
    owner_->idle_.NotifyAll();
  }
  Claim(const Claim&) = delete;
  Claim& operator=(const Claim&) = delete;

  void TakeLocked(const VirtualMachine& machine) {
    if (!owner_->busy_.insert(machine.uuid).second) {
      throw std::runtime_error(machine.name + " is in the middle of a change");
    }
    uuids_.push_back(machine.uuid);
  }

 private:
  VirtualMachines* const owner_;
  std::vector<std::string> uuids_;
};

VirtualMachines::VirtualMachines(HostManagement& daemon, std::string journal_file)
    : daemon_(daemon), journal_(std::move(journal_file)) {}

VirtualMachines::~VirtualMachines() {
  daemon_.Stop();
  std::unique_lock lock(mutex_);
  idle_.Wait(lock, [this] { return busy_.empty(); });
}

std::vector<VirtualMachine> VirtualMachines::All() { return Find("*"); }

std::vector<VirtualMachine> VirtualMachines::Find(const std::string& pattern) {
  const std::lock_guard lock(mutex_);
  journal_.Refresh();
  std::vector<VirtualMachine> found;
  for (const auto& [uuid, object] : journal_.machines()) {
    if (Matches(uuid, object.get(), pattern)) found.push_back(MachineOf(uuid, object.get()));
  }
  return found;
}

std::vector<VirtualMachine> VirtualMachines::ClaimAll(const std::vector<std::string>& patterns,
                                                      Claim* claim) {
  const std::lock_guard lock(mutex_);
  journal_.Refresh();
  std::vector<VirtualMachine> claimed;
  std::set<std::string> unmatched(patterns.begin(), patterns.end());
  for (const auto& [uuid, object] : journal_.machines()) {
    bool wanted = false;
    for (const std::string& pattern : patterns) {
      if (!Matches(uuid, object.get(), pattern)) continue;
      wanted = true;
      unmatched.erase(pattern);
    }
    if (!wanted) continue;
    claimed.push_back(MachineOf(uuid, object.get()));
    claim->TakeLocked(claimed.back());
  }
  if (!unmatched.empty()) throw std::runtime_error("the host has no VM " + *unmatched.begin());
  return claimed;
}

void VirtualMachines::Save(const VirtualMachine& machine) {
  WriteConfiguration(machine);
  const std::lock_guard lock(mutex_);
  const tree::TreeLock tree;
  journal_.Refresh();
  journal_.Put(machine.uuid, ToJson(machine));
}

std::vector<VirtualMachine> VirtualMachines::Create(const std::vector<std::string>& names,
                                                    const std::string& folder,
                                                    const std::map<std::string, Vnic>& vnics) {
  std::vector<VirtualMachine> made;
  for (const std::string& name : names) {
    if (!tree::GoodName(name) || name.find_first_of("* \t") != std::string::npos)
      throw std::runtime_error("no name for a VM: " + name);
    if (!Find(name).empty()) throw std::runtime_error("there is a VM " + name);
    VirtualMachine machine;
    machine.uuid = InventedUuidText("VM " + name);
    machine.name = name;
    machine.path = folder + "/" + name + "/" + name + ".cfg";
    machine.vnics = vnics;
    for (auto& [device, vnic] : machine.vnics) {
      if (vnic.vif.empty()) vnic.vif = InventedUuidText("VIF of " + name + " " + device);
    }
    fs::create_directories(machine.folder());
    Save(machine);
    made.push_back(std::move(machine));
  }
  return made;
}

void VirtualMachines::Clone(const std::string& name, const std::string& copy) {
  Claim claim(this);
  VirtualMachine machine = ClaimAll({name}, &claim).front();
  if (!Find(copy).empty()) throw std::runtime_error("there is a VM " + copy);
  const std::string source = machine.folder();
  const std::string old_file = machine.path.substr(machine.path.rfind('/') + 1);
  machine.uuid = InventedUuidText("VM " + copy);
  machine.name = copy;
  machine.path = source.substr(0, source.rfind('/')) + "/" + copy + "/" + copy + ".cfg";
  machine.on = false;
  for (auto& [device, vnic] : machine.vnics) {
    vnic = Vnic{InventedUuidText("VIF of " + copy + " " + device), vnic.ls, "", "", vnic.port_group, false};
  }
  fs::remove_all(machine.folder());
  fs::copy(source, machine.folder(), fs::copy_options::recursive);
  fs::remove(machine.folder() + "/" + old_file);
  Save(machine);
}

void VirtualMachines::Delete(const std::string& name, bool keep) {
  Claim claim(this);
  for (const VirtualMachine& machine : ClaimAll({name}, &claim)) {
    NeedOn(machine, false);
    {
      const std::lock_guard lock(mutex_);
      const tree::TreeLock tree;
      journal_.Refresh();
      journal_.Remove(machine.uuid);
    }
    if (!keep) fs::remove_all(machine.folder());
  }
}

std::string VirtualMachines::NewStem(const VirtualMachine& machine) {
  const std::lock_guard lock(mutex_);
  return machine.name + "-" + std::to_string(++operations_);
}

VmStep VirtualMachines::StepOf(const VirtualMachine& machine, const std::string& device, uint32_t opcode,
                               const std::string& op_id) {
  const Vnic& vnic = machine.vnics.at(device);
  VmStep step;
  step.vm = machine.name;
  step.uuid = machine.uuid;
  step.device = device;
  step.opcode = opcode;
  step.op_id = op_id;
  step.vif = vnic.vif;
  step.ls = vnic.ls;
  step.path = machine.path;
  return step;
}

// Sends all requests before it waits for the first answer, like a host that starts many VMs at once.
void VirtualMachines::AskAll(Steps* steps, const Options& options) {
  if (options.agent_down) {
    for (VmStep& step : *steps) step.answered = true;
    return;
  }
  std::vector<TimePoint> begins;
  for (VmStep& step : *steps) {
    begins.push_back(Clock::Process().Now());
    HostManagement::Operation operation;
    operation.opcode = step.opcode;
    operation.op_id = step.op_id;
    operation.vif = step.vif;
    operation.ls = step.ls;
    operation.gcf_path = step.path;
    if (!daemon_.Ask(operation)) step.problem = "nobody is connected, or takes it";
  }
  for (size_t i = 0; i < steps->size(); ++i) {
    VmStep& step = (*steps)[i];
    if (!step.problem.empty()) continue;
    const auto answer = daemon_.WaitForAnswer(step.op_id, begins[i] + options.patience);
    if (!answer) {
      step.took_us = Microseconds(Clock::Process().Now() - begins[i]);
      step.problem = "no answer, or the connection ended before it";
      continue;
    }
    step.took_us = Microseconds(answer->at - begins[i]);
    step.answered = true;
    step.status = answer->status;
    step.text = answer->text;
  }
}

void VirtualMachines::Unplug(Vnic* vnic) {
  if (!vnic->port.empty()) static_cast<void>(ConnectPort({vnic->dvs, vnic->port}, "", ""));
  vnic->dvs.clear();
  vnic->port.clear();
  vnic->connected = false;
}

void VirtualMachines::Plug(VmStep* step, Vnic* vnic) {
  const auto place = PortOfVif(step->vif, step->ls, LikelyPorts(*step));
  if (!place) {
    step->problem = "plugFailed: no port holds VIF [" + step->vif + "] in [" + step->ls + "]";
    return;
  }
  if (PortPlace{vnic->dvs, vnic->port} != *place) Unplug(vnic);
  if (!ConnectPort(*place, step->uuid, step->uuid + ":" + step->device)) {
    step->problem = "plugFailed: port " + place->port + " went away";
    return;
  }
  vnic->ls = step->ls;
  vnic->dvs = place->dvs;
  vnic->port = place->port;
  vnic->connected = true;
}

// Uses the port that the VIF had on the switch, as it is in memory or in the port's file.
void VirtualMachines::AttachAlone(VmStep* step, Vnic* vnic) {
  const std::string folder = step->path.substr(0, step->path.rfind('/'));
  auto place = PortOfVif(step->vif, step->ls, {});
  for (const PortPlace& candidate : PortFiles(folder)) {
    if (place) break;
    const auto use = ReadPortFile(folder, candidate);
    if (use && use->ls == step->ls && (use->vif.empty() || use->vif == step->vif)) place = candidate;
  }
  if (!place) {
    step->problem = "there is neither a port nor a port's file for VIF [" + step->vif + "]";
    return;
  }
  step->problem = LoadPort(folder, *place);
  if (step->problem.empty()) step->problem = TakePort(*place, step->vif, kAttachPending);
  if (step->problem.empty()) Plug(step, vnic);
}

void VirtualMachines::DetachAlone(VmStep* step) {
  const auto place = PortOfVif(step->vif, step->ls, LikelyPorts(*step));
  if (place) step->problem = TakePort(*place, step->vif, kDetachPending);
}

// After an attach, the VIF has to be on exactly one port; after a detach, on no port of that switch.
void VirtualMachines::Inspect(Steps* steps) {
  const bool all_ports = steps->size() >= kManySteps || FewPorts();
  std::map<std::string, std::vector<PortPlace>> holders;
  if (all_ports) holders = PortsByVif();
  for (VmStep& step : *steps) {
    if (!step.good() || IsPortGroup(step.ls)) continue;
    std::vector<PortPlace> places = all_ports ? holders[step.vif] : LikelyPorts(step);
    std::erase_if(places, [&](const PortPlace& place) {
      const auto use = ReadPortUse(place);
      return !use || use->vif != step.vif || (step.opcode == kDetach && use->ls != step.ls);
    });
    if (step.opcode == kDetach && !places.empty()) {
      step.problem = "port " + Names(places) + " still holds VIF [" + step.vif + "] in [" + step.ls + "]";
    } else if (places.size() > 1) {
      step.problem = "VIF [" + step.vif + "] is on several ports: " + Names(places);
    }
  }
}

void VirtualMachines::Keep(const Steps& steps) {
  const std::lock_guard lock(mutex_);
  log_.insert(log_.end(), steps.begin(), steps.end());
  while (log_.size() > kRemembered) log_.pop_front();
}

VirtualMachines::Steps VirtualMachines::Log(const std::string& name, size_t count) const {
  const std::lock_guard lock(mutex_);
  Steps steps;
  for (auto step = log_.rbegin(); step != log_.rend() && steps.size() < count; ++step) {
    if (name.empty() || step->vm == name) steps.push_back(*step);
  }
  std::reverse(steps.begin(), steps.end());
  return steps;
}

VirtualMachines::Steps VirtualMachines::PowerOn(const std::vector<std::string>& patterns,
                                                const Options& options) {
  Claim claim(this);
  std::vector<VirtualMachine> machines = ClaimAll(patterns, &claim);
  Steps steps;
  for (const VirtualMachine& machine : machines) {
    NeedOn(machine, false);
    const std::string stem = NewStem(machine);
    int number = 0;
    for (const auto& [device, vnic] : machine.vnics) {
      steps.push_back(StepOf(machine, device, options.opcode, stem + "-" + std::to_string(++number)));
    }
  }
  AskAll(&steps, options);
  auto step = steps.begin();
  for (VirtualMachine& machine : machines) {
    for (auto& [device, vnic] : machine.vnics) {
      if (step->good()) options.agent_down ? AttachAlone(&*step, &vnic) : Plug(&*step, &vnic);
      ++step;
    }
  }
  Inspect(&steps);
  Steps undo;
  step = steps.begin();
  for (VirtualMachine& machine : machines) {
    const auto first = step;
    std::advance(step, machine.vnics.size());
    machine.on = std::all_of(first, step, [](const VmStep& each) { return each.good(); });
    if (!machine.on) {
      // Ports that were attached before one failed are released.
      for (auto each = first; each != step; ++each) {
        Unplug(&machine.vnics.at(each->device));
        if (each->answered && each->status == 0 && !options.agent_down) {
          undo.push_back(StepOf(machine, each->device, kDetach, each->op_id + "u"));
        }
      }
    }
    Save(machine);
  }
  AskAll(&undo, options);
  steps.insert(steps.end(), undo.begin(), undo.end());
  Keep(steps);
  return steps;
}

VirtualMachines::Steps VirtualMachines::PowerOff(const std::vector<std::string>& patterns,
                                                 const Options& options) {
  Claim claim(this);
  std::vector<VirtualMachine> machines = ClaimAll(patterns, &claim);
  Steps steps;
  for (VirtualMachine& machine : machines) {
    NeedOn(machine, true);
    const std::string stem = NewStem(machine);
    int number = 0;
    for (auto& [device, vnic] : machine.vnics) {
      Unplug(&vnic);
      steps.push_back(StepOf(machine, device, kDetach, stem + "-" + std::to_string(++number)));
    }
    machine.on = false;
    // The VM is off whatever the agent answers.
    Save(machine);
  }
  AskAll(&steps, options);
  if (options.agent_down) {
    for (VmStep& step : steps) DetachAlone(&step);
  } else {
    Inspect(&steps);
  }
  Keep(steps);
  return steps;
}

VirtualMachines::Steps VirtualMachines::Move(const std::vector<std::string>& patterns,
                                             const std::string& device, const std::string& ls,
                                             const Options& options) {
  Claim claim(this);
  std::vector<VirtualMachine> machines = ClaimAll(patterns, &claim);
  Steps attaches;
  Steps detaches;
  for (VirtualMachine& machine : machines) {
    NeedOn(machine, true);
    if (VnicOf(&machine, device).ls == ls) throw std::runtime_error(machine.name + " is there already");
  }
  for (const VirtualMachine& machine : machines) {
    const std::string stem = NewStem(machine);
    attaches.push_back(StepOf(machine, device, kAttachToVif, stem + "-1"));
    attaches.back().ls = ls;
    detaches.push_back(StepOf(machine, device, kDetach, stem + "-2"));
  }
  AskAll(&attaches, options);
  for (size_t i = 0; i < machines.size(); ++i) {
    if (attaches[i].good()) Plug(&attaches[i], &machines[i].vnics.at(device));
  }
  Inspect(&attaches);
  Steps leaving;
  for (size_t i = 0; i < machines.size(); ++i) {
    if (attaches[i].good()) leaving.push_back(detaches[i]);
    Save(machines[i]);
  }
  AskAll(&leaving, options);
  Inspect(&leaving);
  Steps steps = attaches;
  steps.insert(steps.end(), leaving.begin(), leaving.end());
  Keep(steps);
  return steps;
}

VirtualMachines::Steps VirtualMachines::MoveFail(const std::string& name, const std::string& device,
                                                 const std::string& ls, bool back, const Options& options) {
  Claim claim(this);
  VirtualMachine machine = ClaimAll({name}, &claim).front();
  NeedOn(machine, true);
  Vnic& vnic = VnicOf(&machine, device);
  const std::string stem = NewStem(machine);
  Steps steps;
  const auto one = [&](uint32_t opcode, const std::string& where) -> VmStep& {
    Steps single = {StepOf(machine, device, opcode, stem + "-" + std::to_string(steps.size() + 1))};
    single.front().ls = where;
    AskAll(&single, options);
    if (opcode == kAttachToVif && where == vnic.ls && single.front().good()) Plug(&single.front(), &vnic);
    Inspect(&single);
    steps.push_back(single.front());
    return steps.back();
  };
  if (one(kAttachToVif, ls).good()) {
    one(kDetach, ls);
    if (back) {
      one(kAttachToVif, vnic.ls);
    } else {
      Unplug(&vnic);
    }
    Save(machine);
  }
  Keep(steps);
  return steps;
}

VirtualMachines::Steps VirtualMachines::LiveOut(const std::string& name, Part part, const Options& options) {
  Claim claim(this);
  VirtualMachine machine = ClaimAll({name}, &claim).front();
  NeedOn(machine, true);
  const std::string stem = NewStem(machine);
  Steps steps;
  int number = 0;
  for (const uint32_t opcode : {kDetachLiveMove, kDetach}) {
    if ((part == Part::kBegin && opcode == kDetach) || (part == Part::kEnd && opcode != kDetach)) continue;
    Steps now;
    for (auto& [device, vnic] : machine.vnics) {
      if (opcode == kDetach) Unplug(&vnic);
      now.push_back(StepOf(machine, device, opcode, stem + "-" + std::to_string(++number)));
    }
    AskAll(&now, options);
    if (opcode == kDetach) Inspect(&now);
    steps.insert(steps.end(), now.begin(), now.end());
  }
  if (part != Part::kBegin) {
    const std::lock_guard lock(mutex_);
    const tree::TreeLock tree;
    journal_.Refresh();
    journal_.Remove(machine.uuid);
  }
  Keep(steps);
  return steps;
}

VirtualMachines::Steps VirtualMachines::LiveIn(const std::string& folder, const std::string& ls, Part part,
                                               const Options& options) {
  auto machine = ReadConfiguration(folder);
  if (!machine) throw std::runtime_error("there is no VM in " + folder);
  for (auto& [device, vnic] : machine->vnics) {
    if (!ls.empty()) vnic.ls = ls;
  }
  Claim claim(this);
  {
    const std::lock_guard lock(mutex_);
    journal_.Refresh();
    const cJSON* const known = journal_.Find(machine->uuid);
    if (known != nullptr && MachineOf(machine->uuid, known).on)
      throw std::runtime_error(machine->name + " is on");
    claim.TakeLocked(*machine);
  }
  const std::string stem = NewStem(*machine);
  Steps steps;
  int number = 0;
  bool plugged = true;
  for (const uint32_t opcode : {kAttachLiveMove, kAttachToVif}) {
    if ((part == Part::kBegin && opcode == kAttachToVif) || (part == Part::kEnd && opcode != kAttachToVif))
      continue;
    Steps now;
    for (const auto& [device, vnic] : machine->vnics) {
      now.push_back(StepOf(*machine, device, opcode, stem + "-" + std::to_string(++number)));
    }
    AskAll(&now, options);
    if (opcode == kAttachToVif) {
      for (VmStep& step : now) {
        if (step.good()) Plug(&step, &machine->vnics.at(step.device));
      }
      Inspect(&now);
      plugged = std::all_of(now.begin(), now.end(), [](const VmStep& step) { return step.good(); });
    }
    steps.insert(steps.end(), now.begin(), now.end());
  }
  machine->on = part != Part::kBegin && plugged;
  Save(*machine);
  Keep(steps);
  return steps;
}

VirtualMachines::Steps VirtualMachines::Relocate(const std::string& name, const std::string& folder,
                                                 const Options& options) {
  Claim claim(this);
  VirtualMachine machine = ClaimAll({name}, &claim).front();
  if (fs::exists(folder)) throw std::runtime_error(folder + " is there already");
  const VirtualMachine before = machine;
  fs::create_directories(fs::path(folder).parent_path());
  fs::rename(machine.folder(), folder);
  machine.path = folder + machine.path.substr(machine.path.rfind('/'));
  Save(machine);
  Steps steps;
  if (machine.on) {
    const std::string stem = NewStem(machine);
    int number = 0;
    for (const auto& [device, vnic] : machine.vnics) {
      steps.push_back(StepOf(machine, device, kAttachToVif, stem + "-" + std::to_string(++number)));
    }
    AskAll(&steps, options);
    Steps leaving;
    for (VmStep& step : steps) {
      if (step.good()) Plug(&step, &machine.vnics.at(step.device));
      if (!step.good()) continue;
      leaving.push_back(StepOf(before, step.device, kDetach, stem + "-" + std::to_string(++number)));
    }
    Save(machine);
    AskAll(&leaving, options);
    // The VM runs on the other host, so its ports keep their VIFs after the detach at the place that it left.
    for (VmStep& step : leaving) {
      if (step.good() && !PortOfVif(step.vif, step.ls, LikelyPorts(step))) {
        step.problem = "no port holds VIF [" + step.vif + "] any more";
      }
    }
    steps.insert(steps.end(), leaving.begin(), leaving.end());
  }
  Keep(steps);
  return steps;
}

VmStep VirtualMachines::Ask(const std::string& name, const std::string& device, uint32_t opcode,
                            const std::string& op_id, const std::string& vif, const std::string& ls,
                            const Options& options) {
  const auto machines = Find(name);
  if (machines.size() != 1) throw std::runtime_error("the host has no VM " + name);
  if (machines.front().vnics.count(device) == 0) throw std::runtime_error(name + " has no vNIC " + device);
  Steps steps = {StepOf(machines.front(), device, opcode, op_id)};
  if (!vif.empty()) steps.front().vif = vif;
  if (!ls.empty()) steps.front().ls = ls;
  AskAll(&steps, options);
  Keep(steps);
  return steps.front();
}

}  // namespace zem::sim
