#include "sim/switch/switch_commands.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <utility>

#include "sim/control/command_options.h"
#include "sim/control/command_table.h"
#include "sim/control/hex.h"
#include "sim/switch/library_folder.h"
#include "sim/switch/sim_state.h"
#include "sim/switch/tree/json_file.h"
#include "sim/switch/tree/state_tree.h"
#include "sim/switch/tree/uplinks.h"
#include "sim/switch/vif_ports.h"

namespace zem::sim {
namespace {

constexpr size_t kMostLines = 1000;  // log lines in one answer

Json FileJson(const std::string& path) { return Json(ReadJson(path).release()); }

bool Printable(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](unsigned char c) { return std::isprint(c) != 0 || c >= 0x80; });
}

void AddValue(cJSON* object, const std::string& name, const std::string& value) {
  AddMember(object, name.c_str(), Printable(value) ? value : "hex:" + ToHex(value));
}

Json Strings(const std::vector<std::string>& texts) {
  Json list = JsonArray();
  for (const std::string& text : texts) AddItem(list.get(), text);
  return list;
}

// Returns the newest lines, each as a JSON object.
Json LogLines(const std::vector<std::string>& lines) {
  Json list = JsonArray();
  for (size_t i = lines.size() - std::min(lines.size(), kMostLines); i < lines.size(); ++i) {
    Json line(cJSON_Parse(lines[i].c_str()));
    if (line) AddItem(list.get(), std::move(line));
  }
  return list;
}

Json SwitchProperties(const SwitchState& state, const std::string& dvs, const std::string& place) {
  Json properties = JsonObject();
  for (const std::string& name :
       tree::List(tree::SwitchDir(dvs) + "/" + place).value_or(std::vector<std::string>())) {
    if (const auto value = state.SwitchProperty(dvs, place, name)) AddValue(properties.get(), name, *value);
  }
  return properties;
}

class SwitchCommands {
 public:
  SwitchCommands(SwitchState& state, LibraryFolder& libraries) : state_(state), libraries_(libraries) {}

  void List(const Reply& reply) const {
    Json list = JsonArray();
    for (const std::string& id : state_.SwitchIds()) {
      Json entry = FileJson(tree::SwitchDir(id) + "/meta.json");
      if (!entry) continue;
      AddMember(entry.get(), "ports", static_cast<uint64_t>(state_.Ports(id).size()));
      AddMember(entry.get(), "host", SwitchProperties(state_, id, "host"));
      AddMember(entry.get(), "global", SwitchProperties(state_, id, "global"));
      AddItem(list.get(), std::move(entry));
    }
    reply.Ok(std::move(list));
  }

  void Ports(const Arguments& arguments, const Reply& reply) const {
    const auto ids = arguments.empty() ? state_.SwitchIds() : std::vector<std::string>{IdOf(arguments[0])};
    Json list = JsonArray();
    for (const std::string& id : ids) {
      for (const std::string& port : state_.Ports(id)) {
        if (arguments.size() > 1 && port != arguments[1]) continue;
        Json entry = JsonObject();
        AddMember(entry.get(), "switch", id);
        AddMember(entry.get(), "port", port);
        if (Json link = FileJson(tree::PortDir(id, port) + "/state.json")) {
          AddMember(entry.get(), "state", std::move(link));
        }
        Json properties = JsonObject();
        for (const auto& [name, value] : state_.PortProperties(id, port)) {
          AddValue(properties.get(), name, value);
        }
        AddMember(entry.get(), "properties", std::move(properties));
        AddItem(list.get(), std::move(entry));
      }
    }
    reply.Ok(std::move(list));
  }

  static void Files(const std::string& folder, const Reply& reply) {
    Json list = JsonArray();
    for (const std::string& file : tree::List(folder).value_or(std::vector<std::string>())) {
      Json entry = FileJson(folder + "/" + file);
      if (!entry) continue;
      AddMember(entry.get(), "file", file);
      AddItem(list.get(), std::move(entry));
    }
    reply.Ok(std::move(list));
  }

  void Make(const Arguments& arguments, const Reply& reply) const {
    const CommandOptions options(arguments, {"--kind", "--zones", "--uplinks"}, {});
    if (!options.error().empty()) return reply.Fail(options.error());
    if (options.positional().size() != 2) return reply.Fail("an id and a name");
    SwitchState::Switch host_switch;
    host_switch.id = options.positional()[0];
    host_switch.name = options.positional()[1];
    host_switch.kind = options.Value("--kind").value_or("KLN");
    if (host_switch.kind != "KLN" && host_switch.kind != "NVS") return reply.Fail("kind KLN or NVS");
    host_switch.zones = Split(options.Value("--zones").value_or(""));
    host_switch.uplinks = Split(options.Value("--uplinks").value_or(""));
    Answer(reply, state_.MakeSwitch(host_switch), "cannot make switch \"" + host_switch.id + "\"");
  }

  void Remove(const Arguments& arguments, const Reply& reply) const {
    Answer(reply, state_.RemoveSwitch(IdOf(arguments[0])), NoSwitch(arguments[0]));
  }

  void LosePorts(const Arguments& arguments, const Reply& reply) const {
    Answer(reply, state_.LosePorts(IdOf(arguments[0])), NoSwitch(arguments[0]));
  }

  void MakePort(const Arguments& arguments, const Reply& reply) const {
    const std::string error = AddPort({IdOf(arguments[0]), arguments[1]});
    Answer(reply, error.empty(), error);
  }

  void SetProperty(const Arguments& arguments, const Reply& reply) const {
    const bool set = state_.SetPortProperty(IdOf(arguments[0]), arguments[1], arguments[2], arguments[3]);
    Answer(reply, set, "cannot set it on port \"" + arguments[1] + "\"");
  }

  static void SetUplink(const Arguments& arguments, const Reply& reply) {
    const CommandOptions options(arguments, {"--mtu", "--vlans", "--alias", "--garble"}, {});
    if (!options.error().empty()) return reply.Fail(options.error());
    if (options.positional().size() != 2) return reply.Fail("a switch and an uplink");
    const std::string dvs = IdOf(options.positional()[0]);
    const std::string& uplink = options.positional()[1];
    uplinks::Settings settings = uplinks::SettingsOf(dvs, uplink);
    if (const auto mtu = options.Value("--mtu")) {
      if (std::from_chars(mtu->data(), mtu->data() + mtu->size(), settings.mtu).ec != std::errc())
        return reply.Fail("not a number: " + *mtu);
    }
    if (const auto vlans = options.Value("--vlans")) settings.vlans = *vlans;
    if (const auto alias = options.Value("--alias")) settings.alias = *alias;
    if (const auto garble = options.Value("--garble")) settings.garble = *garble == "none" ? "" : *garble;
    Answer(reply, uplinks::Configure(dvs, uplink, settings), "no such switch, or no ranges of VLANs");
  }

  void SetHostProperty(const Arguments& arguments, const Reply& reply) const {
    const auto bytes = FromHex(arguments[2]);
    if (!bytes) return reply.Fail("not pairs of hexadecimal digits");
    Answer(reply, state_.SetSwitchProperty(IdOf(arguments[0]), "host", arguments[1], *bytes),
           NoSwitch(arguments[0]));
  }

  static void ClearHostProperty(const Arguments& arguments, const Reply& reply) {
    const tree::TreeLock lock;
    Answer(reply, tree::RemoveFile(tree::SwitchDir(IdOf(arguments[0])) + "/host/" + arguments[1]),
           "no such property");
  }

  void Fault(const Arguments& arguments, const Reply& reply) const {
    std::string error;
    const bool added = state_.AddFault(arguments[0], &error);
    Answer(reply, added, error);
  }

  void Library(const Arguments& arguments, const Reply& reply) const {
    std::string error;
    bool done = false;
    if (arguments[0] == "remove" && arguments.size() == 2) {
      done = libraries_.Remove(arguments[1], &error);
    } else if (arguments[0] == "restore" && arguments.size() == 2) {
      done = libraries_.Restore(arguments[1], &error);
    } else if (arguments[0] == "lack" && arguments.size() == 3) {
      done = libraries_.LackSymbol(arguments[1], arguments[2], &error);
    } else {
      error = "remove NAME, restore NAME or lack NAME FUNCTION";
    }
    Answer(reply, done, error);
  }

  void Calls(const Arguments& arguments, const Reply& reply) const {
    reply.Ok(LogLines(state_.journal().Calls(arguments.empty() ? std::string() : arguments[0])));
  }

  SwitchState& state() const { return state_; }

 private:
  static std::vector<std::string> Split(const std::string& text) {
    std::vector<std::string> items;
    for (size_t at = 0; at < text.size();) {
      const size_t end = std::min(text.find(',', at), text.size());
      if (end > at) items.push_back(text.substr(at, end - at));
      at = end + 1;
    }
    return items;
  }

  static void Answer(const Reply& reply, bool done, const std::string& error) {
    if (done) {
      reply.Ok();
    } else {
      reply.Fail(error);
    }
  }

  static std::string NoSwitch(const std::string& name) { return "no switch \"" + name + "\""; }

  // Accepts a switch's name in place of its id.
  static std::string IdOf(const std::string& text) {
    const std::string id = SwitchIdOfName(text);
    return id.empty() ? text : id;
  }

  SwitchState& state_;
  LibraryFolder& libraries_;
};

}  // namespace

void RegisterSwitchCommands(CommandTable& table, SwitchState& state, LibraryFolder& libraries) {
  const SwitchCommands c(state, libraries);
  using A = const Arguments&;
  using R = const Reply&;
  constexpr size_t kMany = 100;
  table.Register({"switch/list", "", "Shows the host's switches with their properties.", 0, 0,
                  [c](A, R r) { c.List(r); }});
  table.Register({"switch/ports", "[SWITCH [PORT]]", "Shows ports with their properties.", 0, 2,
                  [c](A a, R r) { c.Ports(a, r); }});
  table.Register({"switch/endpoints", "", "Shows the tunnel endpoints.", 0, 0,
                  [](A, R r) { SwitchCommands::Files(tree::KnlnicsDir(), r); }});
  table.Register({"switch/routers", "", "Shows the router ports, one file a switch.", 0, 0,
                  [](A, R r) { SwitchCommands::Files(tree::Root() + "/switch/vdr", r); }});
  table.Register({"switch/make", "[--kind KLN|NVS] [--zones A,B] [--uplinks A,B] ID NAME",
                  "Makes a switch as the host would.", 2, kMany, [c](A a, R r) { c.Make(a, r); }});
  table.Register({"switch/remove", "SWITCH", "Removes a switch with its ports.", 1, 1,
                  [c](A a, R r) { c.Remove(a, r); }});
  table.Register({"switch/lose-ports", "SWITCH", "One switch forgets its ports.", 1, 1,
                  [c](A a, R r) { c.LosePorts(a, r); }});
  table.Register({"switch/add-port", "SWITCH PORT", "Makes a port of the host's own.", 2, 2,
                  [c](A a, R r) { c.MakePort(a, r); }});
  table.Register({"switch/set-port", "SWITCH PORT PROPERTY TEXT",
                  "Sets a property of a port, as the host may.", 4, 4,
                  [c](A a, R r) { c.SetProperty(a, r); }});
  table.Register({"switch/uplink",
                  "[--mtu N] [--vlans A-B,C] [--alias TEXT] [--garble none|mtu|vlan|mtu-count|vlan-count] "
                  "SWITCH UPLINK",
                  "Says what the other end of an uplink carries, and how its results are wrong.", 2, kMany,
                  [](A a, R r) { SwitchCommands::SetUplink(a, r); }});
  table.Register({"switch/set-host", "SWITCH PROPERTY HEX", "Sets a switch's property of this host.", 3, 3,
                  [c](A a, R r) { c.SetHostProperty(a, r); }});
  table.Register({"switch/clear-host", "SWITCH PROPERTY", "Takes it away again.", 2, 2,
                  [](A a, R r) { SwitchCommands::ClearHostProperty(a, r); }});
  table.Register({"switch/reboot", "", "The host starts anew: no switch has ports, no router is on one.", 0,
                  0, [c](A, R r) {
                    c.state().RebootHost();
                    r.Ok();
                  }});
  table.Register({"switch/fault",
                  "FUNCTION [sw=ID] [port=KEY] [prop=NAME] [skip=N] [count=N] [ret=CODE] [errno=N] "
                  "[delay_ms=N] [hang]",
                  "Makes calls of a library function fail or wait; without count for good.", 1, 1,
                  [c](A a, R r) { c.Fault(a, r); }, true});
  table.Register({"switch/faults", "", "Shows the faults that are still to come.", 0, 0,
                  [c](A, R r) { r.Ok(Strings(c.state().Faults())); }});
  table.Register(
      {"switch/clear-faults", "[FUNCTION]", "Ends the faults of a function, or all.", 0, 1, [c](A a, R r) {
         c.state().ClearFaults(a.empty() ? std::string() : a[0]);
         r.Ok();
       }});
  table.Register({"switch/library", "remove NAME | restore NAME | lack NAME FUNCTION",
                  "Takes a library from the daemon's loader, gives it back, or gives one without a function.",
                  2, 3, [c](A a, R r) { c.Library(a, r); }});
  table.Register({"switch/violations", "", "Shows the rules of the libraries that the daemon broke.", 0, 0,
                  [c](A, R r) { r.Ok(LogLines(c.state().journal().Violations())); }});
  table.Register({"switch/live", "", "Shows what the libraries gave and have not got back, as it stands.", 0,
                  0, [c](A, R r) { r.Ok(Strings(c.state().journal().Live())); }});
  table.Register({"switch/calls", "[PART]", "Shows the last calls, or those whose line holds PART.", 0, 1,
                  [c](A a, R r) { c.Calls(a, r); }});
  table.Register({"switch/clear-logs", "", "Empties the logs of calls and violations.", 0, 0, [c](A, R r) {
                    c.state().journal().Clear();
                    r.Ok();
                  }});
}

}  // namespace zem::sim
