#include "sim/inventory/inventory_commands.h"

#include <array>
#include <exception>
#include <functional>

#include "sim/control/command_options.h"
#include "sim/control/command_table.h"
#include "sim/control/number.h"
#include "sim/inventory/host_inventory.h"
#include "sim/inventory/inventory_daemon.h"
#include "sim/inventory/manager_inventory.h"

namespace zem::sim {
namespace {

constexpr size_t kMostAddresses = 16;

struct AnswersName {
  const char* name;
  ManagerInventory::Answers answers;
};
constexpr std::array kAnswers = {AnswersName{"good", ManagerInventory::Answers::kGood},
                                 AnswersName{"never", ManagerInventory::Answers::kNever},
                                 AnswersName{"garbage", ManagerInventory::Answers::kGarbage},
                                 AnswersName{"foreign-type", ManagerInventory::Answers::kForeignType}};

Json TextList(const std::vector<std::string>& lines) {
  Json list = JsonArray();
  for (const std::string& line : lines) AddItem(list.get(), line);
  return list;
}

Json StateJson(const ManagerInventory::State& state) {
  Json result = JsonObject();
  AddMember(result.get(), "full_syncs", state.full_syncs);
  AddMember(result.get(), "updates", state.updates);
  AddMember(result.get(), "heartbeats", state.heartbeats);
  AddMember(result.get(), "requests", state.requests);
  Json vms = JsonObject();
  for (const auto& [id, vm] : state.vms) {
    Json item = JsonObject();
    const auto name = vm.entries.find(0);
    AddMember(item.get(), "name", name == vm.entries.end() ? std::string() : name->second);
    AddMember(item.get(), "local_id", vm.local_id);
    AddMember(item.get(), "guest", vm.guest_host);
    AddMember(vms.get(), id.c_str(), std::move(item));
  }
  AddMember(result.get(), "vms", std::move(vms));
  Json vnis = JsonObject();
  for (const auto& [id, vni] : state.vnis) {
    Json item = JsonObject();
    AddMember(item.get(), "mac", vni.mac);
    AddMember(item.get(), "attachment", vni.attachment);
    AddMember(item.get(), "addresses", TextList(vni.addresses));
    AddMember(vnis.get(), id.c_str(), std::move(item));
  }
  AddMember(result.get(), "vnics", std::move(vnis));
  AddMember(result.get(), "interfaces", static_cast<uint64_t>(state.interfaces.size()));
  return result;
}

// What is wrong with the arguments is told to the caller.
void Do(const Reply& reply, const std::function<void()>& change) {
  try {
    change();
  } catch (const std::exception& error) {
    return reply.Fail(error.what());
  }
  reply.Ok();
}

void SetAnswers(ManagerInventory& manager, const Arguments& arguments, const Reply& reply) {
  const auto count = NumberOf<int>(arguments.size() > 1 ? arguments[1] : "-1");
  if (!count) return reply.Fail("not a number");
  for (const AnswersName& each : kAnswers) {
    if (arguments[0] != each.name) continue;
    manager.SetAnswers(each.answers, *count);
    return reply.Ok();
  }
  reply.Fail("no answer \"" + arguments[0] + "\"");
}

void SetFaults(InventoryDaemon& daemon, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--unseen", "--cut", "--noise"}, {});
  if (!options.error().empty()) return reply.Fail(options.error());
  const auto unseen = NumberOf<int>(options.Value("--unseen").value_or("0"));
  const auto cut = NumberOf<int>(options.Value("--cut").value_or("0"));
  const auto noise = NumberOf<int>(options.Value("--noise").value_or("0"));
  if (!unseen || !cut || !noise) return reply.Fail("not a number");
  daemon.SetFaults({.unseen = *unseen, .cut = *cut, .noise = *noise});
  reply.Ok();
}

}  // namespace

void RegisterInventoryCommands(CommandTable& table, HostInventory& host, InventoryDaemon& daemon,
                               ManagerInventory& manager) {
  table.Register(
      {"state", "", "Shows what the manager believes.", 0, 0,
       [&manager](const Arguments&, const Reply& reply) { reply.Ok(StateJson(manager.state())); }});
  table.Register({"diff", "", "Shows what the manager believes otherwise than it is on the host.", 0, 0,
                  [&](const Arguments&, const Reply& reply) {
                    const auto lines = InventoryDiff(host.Read(), manager.state());
                    Json result = JsonObject();
                    AddMember(result.get(), "count", static_cast<uint64_t>(lines.size()));
                    AddMember(result.get(), "lines", TextList(lines));
                    reply.Ok(std::move(result));
                  }});
  table.Register({"sync", "", "The manager commands a full sync.", 0, 0,
                  [&manager](const Arguments&, const Reply& reply) {
                    const std::string wrong = manager.AskFullSync();
                    wrong.empty() ? reply.Ok() : reply.Fail(wrong);
                  }});
  table.Register({"forget", "", "The manager loses its inventory.", 0, 0,
                  [&manager](const Arguments&, const Reply& reply) {
                    manager.Forget();
                    reply.Ok();
                  }});
  table.Register({"answers", "good|never|garbage|foreign-type [COUNT]",
                  "Sets how the manager answers the next COUNT messages (all).", 1, 2,
                  [&manager](const Arguments& a, const Reply& reply) { SetAnswers(manager, a, reply); }});
  table.Register(
      {"rename", "VM NAME", "The host's inventory renames a VM.", 2, 2,
       [&host](const Arguments& a, const Reply& reply) { Do(reply, [&] { host.Rename(a[0], a[1]); }); }});
  table.Register(
      {"guest", "VM HOSTNAME", "The guest in the VM tells its name.", 2, 2,
       [&host](const Arguments& a, const Reply& reply) { Do(reply, [&] { host.SetGuest(a[0], a[1]); }); }});
  table.Register({"address", "VM KEY [ADDRESS...]", "The guest's addresses on a device, such as 4000.", 2,
                  2 + kMostAddresses, [&host](const Arguments& a, const Reply& reply) {
                    const auto key = NumberOf<uint32_t>(a[1]);
                    if (!key) return reply.Fail("not a device key");
                    Do(reply, [&] { host.SetAddresses(a[0], *key, {a.begin() + 2, a.end()}); });
                  }});
  table.Register({"external-ids", "on|off", "Whether VMs that are new get an external id at once.", 1, 1,
                  [&host](const Arguments& a, const Reply& reply) {
                    host.GiveExternalIds(a[0] == "on");
                    reply.Ok();
                  }});
  table.Register({"host", "PROPERTY VALUE", "Changes a property of the host.", 2, 2,
                  [&host](const Arguments& a, const Reply& reply) {
                    host.SetHostProperty(a[0], a[1]);
                    reply.Ok();
                  }});
  table.Register({"daemon", "start|stop", "Starts or kills the inventory daemon.", 1, 1,
                  [&daemon](const Arguments& a, const Reply& reply) {
                    Do(reply, [&] { a[0] == "start" ? daemon.Start() : daemon.Stop(); });
                  }});
  table.Register({"hold", "MILLISECONDS", "How long the daemon waits for news (1000).", 1, 1,
                  [&daemon](const Arguments& a, const Reply& reply) {
                    const auto hold = NumberOf<int>(a[0]);
                    if (!hold || *hold < 0) return reply.Fail("not a number of milliseconds");
                    daemon.SetHold(*hold);
                    reply.Ok();
                  }});
  table.Register({"faults", "[--unseen N] [--cut N] [--noise N]",
                  "So many pings find no host, replies break off, or have noise.", 0, 6,
                  [&daemon](const Arguments& a, const Reply& reply) { SetFaults(daemon, a, reply); }});
  table.Register(
      {"requests", "", "Shows what the daemon was asked, oldest first.", 0, 0,
       [&daemon](const Arguments&, const Reply& reply) { reply.Ok(TextList(daemon.Requests())); }});
}

std::vector<std::string> DrawInventory(const ManagerInventory& manager) {
  const auto state = manager.state();
  if (state.full_syncs == 0) return {};
  return {"inventory at the manager: " + std::to_string(state.vms.size()) + " VMs with " +
          std::to_string(state.vnis.size()) + " vNICs, " + std::to_string(state.interfaces.size()) +
          " interfaces, after " + std::to_string(state.full_syncs) + " full syncs and " +
          std::to_string(state.updates) + " updates"};
}

}  // namespace zem::sim
