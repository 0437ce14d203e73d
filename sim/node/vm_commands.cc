#include "sim/node/vm_commands.h"

#include <exception>
#include <functional>
#include <limits>
#include <optional>

#include "platform/core/thread.h"
#include "sim/control/command_options.h"
#include "sim/control/command_table.h"
#include "sim/control/number.h"
#include "sim/host/host_state.h"
#include "sim/host/virtual_machines.h"
#include "sim/manager/manager.h"
#include "sim/sandbox/sandbox.h"
#include "sim/truth/node_truth.h"

namespace zem::sim {
namespace {

using Steps = VirtualMachines::Steps;
using Part = VirtualMachines::Part;

constexpr size_t kMany = std::numeric_limits<size_t>::max();

Json MachineJson(const VirtualMachine& machine) {
  Json item = ToJson(machine);
  AddMember(item.get(), "uuid", machine.uuid);
  return item;
}

Json StepJson(const VmStep& step) {
  Json item = JsonObject();
  AddMember(item.get(), "vm", step.vm);
  AddMember(item.get(), "device", step.device);
  AddMember(item.get(), "opcode", step.opcode);
  AddMember(item.get(), "op_id", step.op_id);
  AddMember(item.get(), "vif", step.vif);
  AddMember(item.get(), "ls", step.ls);
  AddMember(item.get(), "path", step.path);
  AddMember(item.get(), "answered", step.answered);
  AddMember(item.get(), "status", step.status);
  AddMember(item.get(), "text", step.text);
  AddMember(item.get(), "took_us", step.took_us);
  if (!step.problem.empty()) AddMember(item.get(), "problem", step.problem);
  return item;
}

Json StepsJson(const Steps& steps) {
  Json list = JsonArray();
  for (const VmStep& step : steps) AddItem(list.get(), StepJson(step));
  Json result = JsonObject();
  AddMember(result.get(), "count", static_cast<uint64_t>(steps.size()));
  AddMember(result.get(), "steps", std::move(list));
  return result;
}

std::string Complaint(const VmStep& step) {
  const std::string what = step.vm + " " + step.device + ": " + step.op_id + ": ";
  if (!step.problem.empty()) return what + step.problem;
  return what + "status " + std::to_string(step.status) + " [" + step.text + "]";
}

// Describes the first step that has a problem, and counts the others.
std::string Complaint(const Steps& steps) {
  std::string text;
  size_t others = 0;
  for (const VmStep& step : steps) {
    if (step.good()) continue;
    if (text.empty()) {
      text = Complaint(step);
    } else {
      ++others;
    }
  }
  return others == 0 ? text : text + " (and " + std::to_string(others) + " more)";
}

// A change blocks until it has its answers, so it runs on a thread of its own.
void Change(const Reply& reply, std::function<Steps()> change) {
  NativeThread::Options options;
  options.detached = true;
  const NativeThread started(std::move(options), [reply, change = std::move(change)] {
    try {
      const Steps steps = change();
      if (const std::string complaint = Complaint(steps); !complaint.empty()) return reply.Fail(complaint);
      reply.Ok(StepsJson(steps));
    } catch (const std::exception& error) {
      reply.Fail(error.what());
    }
  });
}

struct Asked {
  std::string error;
  Arguments words;
  VirtualMachines::Options options;
  bool begin = false;
  bool end = false;
  bool no_return = false;
  std::string to;

  Part part() const { return begin ? Part::kBegin : end ? Part::kEnd : Part::kWhole; }
};

Asked Parse(const Arguments& arguments, size_t words) {
  const CommandOptions options(arguments, {"--within", "--opcode", "--to"},
                               {"--agent-down", "--begin", "--end", "--no-return"});
  Asked asked;
  asked.error = options.error();
  asked.words = options.positional();
  if (asked.error.empty() && asked.words.size() < words) asked.error = "words are missing";
  const auto seconds = NumberOf<unsigned>(options.Value("--within").value_or("70"));
  const auto opcode = NumberOf<unsigned>(options.Value("--opcode").value_or("8"));
  if (!seconds || !opcode) {
    asked.error = "--within and --opcode take numbers";
    return asked;
  }
  asked.options.patience = std::chrono::seconds(*seconds);
  asked.options.opcode = static_cast<uint32_t>(*opcode);
  asked.options.agent_down = options.Has("--agent-down");
  asked.begin = options.Has("--begin");
  asked.end = options.Has("--end");
  asked.to = options.Value("--to").value_or("");
  asked.no_return = options.Has("--no-return");
  return asked;
}

// Parses DEVICE:VIF:LS; the VIF itself may contain colons.
bool ParseVnic(const std::string& word, std::map<std::string, Vnic>* vnics) {
  const size_t first = word.find(':');
  const size_t last = word.rfind(':');
  if (first == std::string::npos || first == last || first == 0) return false;
  Vnic vnic;
  vnic.vif = word.substr(first + 1, last - first - 1);
  vnic.ls = word.substr(last + 1);
  return vnics->emplace(word.substr(0, first), vnic).second && !vnic.ls.empty();
}

void Create(VirtualMachines& machines, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--folder", "--count"}, {});
  if (!options.error().empty()) return reply.Fail(options.error());
  const Arguments& words = options.positional();
  if (words.empty()) return reply.Fail("a name is needed");
  std::map<std::string, Vnic> vnics;
  for (size_t i = 1; i < words.size(); ++i) {
    if (!ParseVnic(words[i], &vnics)) return reply.Fail("no vNIC DEVICE:VIF:LS: " + words[i]);
  }
  std::vector<std::string> names = {words[0]};
  if (const auto text = options.Value("--count")) {
    const auto count = NumberOf<unsigned>(*text);
    if (!count) return reply.Fail("--count takes a number");
    names.clear();
    for (unsigned i = 0; i < *count; ++i) names.push_back(words[0] + "-" + std::to_string(i));
    for (auto& [device, vnic] : vnics) {
      if (!vnic.vif.empty() && *count > 1) return reply.Fail("one VIF for many VMs");
    }
  }
  const auto made = machines.Create(names, options.Value("--folder").value_or(kDatastore), vnics);
  if (made.size() == 1) return reply.Ok(MachineJson(made.front()));
  Json result = JsonObject();
  AddMember(result.get(), "count", static_cast<uint64_t>(made.size()));
  reply.Ok(std::move(result));
}

void List(VirtualMachines& machines, const Reply& reply) {
  Json list = JsonArray();
  uint64_t on = 0;
  const auto all = machines.All();
  for (const VirtualMachine& machine : all) {
    on += machine.on ? 1 : 0;
    Json item = JsonObject();
    AddMember(item.get(), "name", machine.name);
    AddMember(item.get(), "uuid", machine.uuid);
    AddMember(item.get(), "power", machine.on ? "on" : "off");
    AddMember(item.get(), "path", machine.path);
    AddMember(item.get(), "vnics", static_cast<uint64_t>(machine.vnics.size()));
    AddItem(list.get(), std::move(item));
  }
  Json result = JsonObject();
  AddMember(result.get(), "count", static_cast<uint64_t>(all.size()));
  AddMember(result.get(), "on", on);
  AddMember(result.get(), "list", std::move(list));
  reply.Ok(std::move(result));
}

void Show(VirtualMachines& machines, const std::string& name, const Reply& reply) {
  const auto found = machines.Find(name);
  if (found.size() != 1) return reply.Fail("the host has no VM " + name);
  reply.Ok(MachineJson(found.front()));
}

void Log(const VirtualMachines& machines, const Arguments& arguments, const Reply& reply) {
  const auto count = NumberOf<unsigned>(arguments.size() > 1 ? arguments[1] : "100");
  if (!count) return reply.Fail("how many?");
  const std::string name = arguments.empty() || arguments[0] == "all" ? "" : arguments[0];
  reply.Ok(StepsJson(machines.Log(name, static_cast<size_t>(*count))));
}

void CheckAll(VirtualMachines& machines, Manager& manager, const HostState& host, const Reply& reply) {
  Json lines = JsonArray();
  for (const std::string& line : CheckAllVifs(machines, manager, host)) AddItem(lines.get(), line);
  Json result = JsonObject();
  AddMember(result.get(), "count", cJSON_GetArraySize(lines.get()));
  AddMember(result.get(), "lines", std::move(lines));
  reply.Ok(std::move(result));
}

void AskOne(VirtualMachines& machines, const Asked& asked, const Reply& reply) {
  const Arguments& words = asked.words;
  Change(reply, [&machines, asked, words] {
    return Steps{machines.Ask(words[1], words[2], asked.options.opcode, words[0],
                              words.size() > 3 ? words[3] : "", words.size() > 4 ? words[4] : "",
                              asked.options)};
  });
}

}  // namespace

void RegisterVmCommands(CommandTable& table, VirtualMachines& machines, Manager& manager,
                        const HostState& host) {
  using A = const Arguments&;
  using R = const Reply&;
  VirtualMachines* const m = &machines;
  // Registers a command for a change: parses its words, calls `run` and waits for the result.
  const auto add = [&table, m](const char* name, const char* usage, const char* help, size_t words,
                               Steps (*run)(VirtualMachines&, const Asked&)) {
    table.Register({name, usage, help, words, kMany, [m, words, run](A a, R r) {
                      const Asked asked = Parse(a, words);
                      if (!asked.error.empty()) return r.Fail(asked.error);
                      Change(r, [m, asked, run] { return run(*m, asked); });
                    }});
  };
  table.Register(
      {"create", "[--folder FOLDER] [--count N] NAME [DEVICE:VIF:LS...]",
       "Makes a VM that is off, with a folder of its own below FOLDER (/var/datastore); an empty VIF "
       "is a new one; --count makes NAME-0, NAME-1, ...",
       1, kMany, [m](A a, R r) { Create(*m, a, r); }});
  table.Register(
      {"clone", "VM COPY",
       "Copies a VM's folder, with its ports' files, for a VM that is off and has VIFs of its own.", 2, 2,
       [m](A a, R r) {
         m->Clone(a[0], a[1]);
         r.Ok();
       }});
  table.Register({"delete", "NAME [keep]",
                  "Forgets a VM that is off, with its folder unless told to keep it.", 1, 2, [m](A a, R r) {
                    m->Delete(a[0], a.size() > 1 && a[1] == "keep");
                    r.Ok();
                  }});
  table.Register({"list", "", "Shows the VMs.", 0, 0, [m](A, R r) { List(*m, r); }});
  table.Register({"show", "VM", "Shows a VM with its vNICs.", 1, 1, [m](A a, R r) { Show(*m, a[0], r); }});
  table.Register({"log", "[VM|all [COUNT]]", "Shows the last port operations (100), how they were answered.",
                  0, 2, [m](A a, R r) { Log(*m, a, r); }});
  table.Register({"check", "",
                  "Shows where ports, their files, VMs and the manager (when it keeps VIFs) disagree.", 0, 0,
                  [m, &manager, &host](A, R r) { CheckAll(*m, manager, host, r); }});
  add("power-on", "[--opcode 1|8] [--agent-down] [--within SECONDS] VM...",
      "Attaches every vNIC and connects it with its port; --agent-down without the agent.", 1,
      [](VirtualMachines& vms, const Asked& asked) { return vms.PowerOn(asked.words, asked.options); });
  add("power-off", "[--agent-down] [--within SECONDS] VM...", "Detaches every vNIC.", 1,
      [](VirtualMachines& vms, const Asked& asked) { return vms.PowerOff(asked.words, asked.options); });
  add("restart", "[--within SECONDS] VM...", "Off, and on again.", 1,
      [](VirtualMachines& vms, const Asked& asked) {
        Steps steps = vms.PowerOff(asked.words, asked.options);
        const Steps on = vms.PowerOn(asked.words, asked.options);
        steps.insert(steps.end(), on.begin(), on.end());
        return steps;
      });
  add("move", "[--within SECONDS] VM DEVICE LS",
      "A vNIC goes to another switch: attached there, then detached from where it was.", 3,
      [](VirtualMachines& vms, const Asked& asked) {
        return vms.Move({asked.words[0]}, asked.words[1], asked.words[2], asked.options);
      });
  add("move-fail", "[--no-return] [--within SECONDS] VM DEVICE LS",
      "A move that the host gives up behind the attach: detached again, and attached where it was.", 3,
      [](VirtualMachines& vms, const Asked& asked) {
        return vms.MoveFail(asked.words[0], asked.words[1], asked.words[2], !asked.no_return, asked.options);
      });
  add("live-out", "[--begin|--end] [--within SECONDS] VM",
      "A running VM goes to another host; its folder stays.  --begin and --end are the halves.", 1,
      [](VirtualMachines& vms, const Asked& asked) {
        return vms.LiveOut(asked.words[0], asked.part(), asked.options);
      });
  add("live-in", "[--begin|--end] [--to LS] [--within SECONDS] FOLDER",
      "The VM whose folder it is comes, running, from another host, where it was or to another switch.", 1,
      [](VirtualMachines& vms, const Asked& asked) {
        return vms.LiveIn(asked.words[0], asked.to, asked.part(), asked.options);
      });
  add("relocate", "[--within SECONDS] VM FOLDER",
      "A VM's folder gets another place; of one that runs, the vNICs are told of from there.", 2,
      [](VirtualMachines& vms, const Asked& asked) {
        return vms.Relocate(asked.words[0], asked.words[1], asked.options);
      });
  table.Register({"ask", "[--opcode N] [--within SECONDS] OPID VM DEVICE [VIF [LS]]",
                  "One operation for a vNIC under a given id; the VM is not changed.", 3, kMany,
                  [m](A a, R r) {
                    const Asked asked = Parse(a, 3);
                    if (!asked.error.empty()) return r.Fail(asked.error);
                    AskOne(*m, asked, r);
                  }});
}

}  // namespace zem::sim
