#include "sim/truth/vm_check.h"

#include <algorithm>
#include <map>

#include "sim/switch/tree/state_tree.h"
#include "sim/switch/vif_ports.h"

namespace zem::sim {
namespace {

constexpr const char* kAttachPending = "attach_port";
constexpr const char* kDetachPending = "detach_port";

struct Owner {
  const VirtualMachine* machine;
  std::string device;
  const Vnic* vnic;

  std::string name() const { return machine->name + " " + device; }
};

class Check {
 public:
  explicit Check(const VifKnowledge& knowledge) : knowledge_(knowledge), ports_(PortsByVif()) {
    for (const VirtualMachine& machine : knowledge.machines) {
      for (const auto& [device, vnic] : machine.vnics) {
        if (vnic.connected && !vnic.vif.empty()) owners_[vnic.vif] = {&machine, device, &vnic};
      }
    }
  }

  std::vector<std::string> Run() {
    for (const auto& [vif, owner] : owners_) CheckVnic(vif, owner);
    for (const auto& [vif, places] : ports_) CheckPorts(vif, places);
    for (const VirtualMachine& machine : knowledge_.machines) CheckFiles(machine);
    if (knowledge_.manager) CheckManager();
    return std::move(lines_);
  }

 private:
  void CheckVnic(const std::string& vif, const Owner& owner) {
    const auto found = ports_.find(vif);
    if (found == ports_.end()) return Say(owner.name() + ": no port holds its VIF " + vif);
    const auto use = ReadPortUse(found->second.front());
    if (!use) return Say(owner.name() + ": its port went away");
    if (use->ls != owner.vnic->ls) {
      Say(owner.name() + ": its port is in [" + use->ls + "] instead of [" + owner.vnic->ls + "]");
    }
    if (use->vnic != owner.machine->uuid + ":" + owner.device) {
      Say(owner.name() + ": its port is connected with [" + use->vnic + "]");
    }
  }

  void CheckPorts(const std::string& vif, const std::vector<PortPlace>& places) {
    if (places.size() > 1) Say("VIF " + vif + " is on " + std::to_string(places.size()) + " ports");
    for (const PortPlace& place : places) {
      const auto use = ReadPortUse(place);
      if (!use) continue;
      const bool owned = owners_.count(vif) != 0;
      const bool interface = knowledge_.interfaces.count(vif) != 0;
      if (!owned && !interface) {
        Say("port " + place.port + " holds VIF " + vif + ", which nobody uses");
      }
      // A pending note is obsolete once the VIF has been attached or detached again.
      if (!interface && use->pending == (owned ? kAttachPending : kDetachPending)) {
        Say("port " + place.port + ": the manager was not told of " + use->pending);
      }
      CheckFile(place, *use);
    }
  }

  void CheckFile(const PortPlace& place, const PortUse& use) {
    const std::string end = "/.dvsData/" + place.dvs + "/" + place.port;
    if (use.file.empty()) return;
    if (!use.file.ends_with(end)) return Say("port " + place.port + " has a file at " + use.file);
    const auto written = ReadPortFile(use.file.substr(0, use.file.size() - end.size()), place);
    if (!written) return Say("port " + place.port + ": its file is missing or torn");
    if (written->vif != use.vif || written->ls != use.ls) {
      Say("port " + place.port + ": its file says [" + written->vif + "] in [" + written->ls + "]");
    }
  }

  void CheckFiles(const VirtualMachine& machine) {
    for (const PortPlace& place : PortFiles(machine.folder())) {
      const auto written = ReadPortFile(machine.folder(), place);
      if (!written) {
        Say(machine.name + ": the file of port " + place.port + " is torn");
        continue;
      }
      // When the port is made again from such a file, it would get that VIF, which would then be on two
      // ports.  The VIF of another VM is legitimate in a copy of that VM's files.
      if (!knowledge_.files_written) continue;
      const bool own = std::any_of(machine.vnics.begin(), machine.vnics.end(),
                                   [&](const auto& vnic) { return vnic.second.vif == written->vif; });
      if (const auto use = ReadPortUse(place); use && own && use->vif != written->vif) {
        Say(machine.name + ": the file of port " + place.port + " keeps VIF " + written->vif +
            ", the port has [" + use->vif + "]");
      }
    }
  }

  void CheckManager() {
    std::map<std::string, const VifPlace*> known;
    for (const VifPlace& place : *knowledge_.manager) {
      if (!place.host.empty() && place.host != knowledge_.host) continue;
      known[place.vif] = &place;
      if (owners_.count(place.vif) == 0 && knowledge_.interfaces.count(place.vif) == 0) {
        Say("the manager has VIF " + place.vif + " here, which nobody uses");
      }
    }
    for (const auto& [vif, owner] : owners_) {
      const auto found = known.find(vif);
      if (found == known.end()) {
        Say(owner.name() + ": the manager does not have its VIF " + vif);
      } else if (found->second->ls != owner.vnic->ls || found->second->port != owner.vnic->port) {
        Say(owner.name() + ": the manager has it on port " + found->second->port + " in [" +
            found->second->ls + "]");
      }
    }
  }

  void Say(std::string line) { lines_.push_back(std::move(line)); }

  const VifKnowledge& knowledge_;
  const std::map<std::string, std::vector<PortPlace>> ports_;
  std::map<std::string, Owner> owners_;
  std::vector<std::string> lines_;
};

}  // namespace

std::vector<std::string> CheckVifs(const VifKnowledge& knowledge) { return Check(knowledge).Run(); }

}  // namespace zem::sim
