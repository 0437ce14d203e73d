#include "sim/firewall/firewall_commands.h"

#include <unistd.h>

#include <fstream>
#include <stdexcept>

#include "platform/firewall/filter_device.h"
#include "sim/control/command_options.h"
#include "sim/control/command_table.h"
#include "sim/control/number.h"
#include "sim/data/data_folder.h"
#include "sim/firewall/tree/firewall_tree.h"

namespace zem::sim {
namespace {

void Answer(const Reply& reply, bool done, const std::string& error) {
  if (done) {
    reply.Ok();
  } else {
    reply.Fail(error);
  }
}

Json FiltersJson() {
  Json list = JsonArray();
  for (const firewall::Filter& filter : firewall::Filters()) {
    Json item = JsonObject();
    AddMember(item.get(), "vm", filter.vm_uuid);
    AddMember(item.get(), "vnic", filter.vnic);
    AddMember(item.get(), "name", filter.name);
    AddMember(item.get(), "bypassed", filter.bypassed);
    AddMember(item.get(), "dropped", filter.dropped);
    AddMember(item.get(), "vif", filter.has_vif);
    AddItem(list.get(), std::move(item));
  }
  return list;
}

Json ConnectionsJson() {
  Json list = JsonArray();
  for (const firewall::Connection& connection : firewall::Connections()) {
    Json item = JsonObject();
    AddMember(item.get(), "vm", connection.vm_uuid);
    AddMember(item.get(), "vnic", connection.vnic);
    AddMember(item.get(), "connection", connection.key);
    AddMember(item.get(), "user", connection.user);
    AddMember(item.get(), "process", connection.process);
    AddItem(list.get(), std::move(item));
  }
  return list;
}

Json MembershipsJson() {
  Json list = JsonArray();
  for (const firewall::Membership& membership : firewall::Memberships()) {
    Json item = JsonObject();
    AddMember(item.get(), "user", membership.user);
    AddMember(item.get(), "hash", membership.user_hash);
    AddMember(item.get(), "vnic", membership.vnic);
    Json groups = JsonArray();
    for (const std::string& group : membership.groups) AddItem(groups.get(), group);
    AddMember(item.get(), "groups", std::move(groups));
    AddItem(list.get(), std::move(item));
  }
  return list;
}

void Show(const Reply& reply) {
  Json result = JsonObject();
  AddMember(result.get(), "filters", FiltersJson());
  AddMember(result.get(), "connections", ConnectionsJson());
  AddMember(result.get(), "memberships", MembershipsJson());
  reply.Ok(std::move(result));
}

void AddFilter(const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--name"}, {"--no-vif"});
  if (!options.error().empty()) return reply.Fail(options.error());
  if (options.positional().size() != 2) return reply.Fail("a VM's vc.uuid and a vNIC");
  const auto vnic = NumberOf<uint32_t>(options.positional()[1]);
  if (!vnic) return reply.Fail("no vNIC " + options.positional()[1]);
  firewall::Filter filter;
  filter.name = options.Value("--name").value_or(filter.name);
  filter.vm_uuid = options.positional()[0];
  filter.vnic = *vnic;
  filter.has_vif = !options.Has("--no-vif");
  Answer(reply, firewall::PutFilter(filter), "the filter cannot be written");
}

// Finds the filter that a command names by VM and vNIC.
std::optional<firewall::Filter> Named(const Arguments& arguments) {
  const auto vnic = NumberOf<uint32_t>(arguments[1]);
  return vnic ? firewall::FindFilter(arguments[0], *vnic) : std::nullopt;
}

void SetCounters(const Arguments& arguments, const Reply& reply) {
  auto filter = Named(arguments);
  const auto bypassed = NumberOf<uint64_t>(arguments[2]);
  const auto dropped = NumberOf<uint64_t>(arguments[3]);
  if (!filter || !bypassed || !dropped) return reply.Fail("no such filter, or not two numbers");
  filter->bypassed = *bypassed;
  filter->dropped = *dropped;
  Answer(reply, firewall::PutFilter(*filter), "the filter cannot be written");
}

void Device(const Arguments& arguments, const Reply& reply) {
  if (arguments[0] == "missing") {
    return Answer(reply, ::unlink(FW_DEVICE) == 0, "the device is missing already");
  }
  const auto fault = firewall::DeviceFaultOf(arguments[0]);
  if (!fault) return reply.Fail("no fault \"" + arguments[0] + "\"");
  std::ofstream(FW_DEVICE, std::ios::app).close();
  firewall::SetDeviceFault(*fault);
  reply.Ok();
}

}  // namespace

void SetUpFirewall() {
  std::ofstream device(FW_DEVICE, std::ios::app);
  if (!device || !firewall::Prepare()) throw std::runtime_error("cannot make the host's firewall");
}

std::string FilterDeviceLibrary() {
  std::string path = DataFolder::Get().libraries + "/libzemgatr.so";
  return ::access(path.c_str(), R_OK) == 0 ? path : std::string();
}

void RegisterFirewallCommands(CommandTable& table) {
  using A = const Arguments&;
  using R = const Reply&;
  table.Register({"show", "", "Shows the filters, the context table and the memberships.", 0, 0,
                  [](A, R r) { Show(r); }});
  table.Register({"filter", "[--name NAME] [--no-vif] VM VNIC",
                  "Adds the filter of a vNIC, by the VM's vc.uuid as it stands in its file.", 2, 5,
                  AddFilter});
  table.Register({"remove", "VM VNIC", "Removes a filter.", 2, 2, [](A a, R r) {
                    const auto filter = Named(a);
                    Answer(r, filter && firewall::RemoveFilter(filter->vm_uuid, filter->vnic),
                           "no such filter");
                  }});
  table.Register(
      {"counters", "VM VNIC BYPASSED DROPPED", "Sets a filter's packet counters.", 4, 4, SetCounters});
  table.Register({"forget", "USER", "The firewall forgets the groups of a user.", 1, 1,
                  [](A a, R r) { Answer(r, firewall::ForgetMembership(a[0]), "no membership of " + a[0]); }});
  table.Register(
      {"restart", "", "The firewall loses its context table and all memberships.", 0, 0, [](A, R r) {
         firewall::Restart();
         r.Ok();
       }});
  table.Register({"device", "none|missing|null-buffer|more|fewer|unterminated",
                  "Makes something wrong with the device, or ends that; calls fail by \"switch/fault\" with "
                  "the names filter-count and filters.",
                  1, 1, Device});
}

std::vector<std::string> DrawFirewall(size_t most) {
  const std::vector<firewall::Filter> filters = firewall::Filters();
  const std::vector<firewall::Connection> connections = firewall::Connections();
  if (filters.empty() && connections.empty()) return {};
  std::vector<std::string> lines = {"firewall: " + std::to_string(filters.size()) + " filters, " +
                                    std::to_string(connections.size()) + " connections, " +
                                    std::to_string(firewall::Memberships().size()) + " memberships"};
  for (const firewall::Connection& connection : connections) {
    if (lines.size() > most) {
      lines.push_back("  ... and " + std::to_string(connections.size() - most) + " more");
      break;
    }
    std::string line = "  " + connection.vm_uuid + " vNIC " + std::to_string(connection.vnic) + ": " +
                       connection.key + " of " + connection.user;
    if (connection.process != 0) line += ", process " + std::to_string(connection.process);
    lines.push_back(std::move(line));
  }
  return lines;
}

}  // namespace zem::sim
