#pragma once

#include <google/protobuf/text_format.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/zema/covedb/config_files.h"
#include "app/zema/hostconfig/follow_up_tasks.h"
#include "app/zema/hostconfig/host_config_context.h"
#include "app/zema/hostconfig/host_config_task_qub.h"
#include "app/zema/hostlib/config_ops_manager.h"
#include "app/zema/hostlib/endpoint_library.h"
#include "app/zema/hostlib/port_props.h"
#include "app/zema/hostlib/router_library.h"
#include "app/zema/hostswitch/high_performance_profile.h"
#include "app/zema/hostswitch/router_ports.h"
#include "app/zema/migration/migration_record.h"
#include "app/zema/state/health_record.h"
#include "app/zema/state/host_config_state.h"
#include "app/zema/state/realization_options.h"
#include "framework/node/host_identity.h"
#include "platform/core/virtual_clock.h"
#include "proto/switching/switching.pb.h"
#include "tests/app/zema/hostconfig/noted_follow_ups.h"
#include "tests/app/zema/lswitch/fake_sender.h"
#include "tests/app/zema/ports/switch_host_test.h"
#include "tests/app/zema/state/no_publisher.h"

namespace zem::zema {

/// The script of a host whose switches are those of a state tree.  `before` is called with each command
/// before it is carried out; an exception from it stands for the agent's end at that point.
class HostScript final : public FakeLumCommands {
 public:
  explicit HostScript(sim::SwitchState& state) : state_(state) {
    Script("CheckQUBiVersion70AndUnusedCkln()", {"ok|1,0"});
    Script("IsZemInstallStatusSet()", {"notset"});
    Script("IsZemDvsConfigRequiredSet()", {"notset"});
    Script("GetGuestLaneKnl(", {"notFound"});
    Script("applyVtep(", {"ok|~ok|~ok|~ok|~ok"});
  }

  int InvokeCommand(const std::string& command, const std::string& expected, std::string* out) override {
    if (before) before(command);
    const size_t bracket = command.find('(');
    const std::string name = command.substr(0, bracket);
    const std::string arguments =
        bracket == std::string::npos ? "" : command.substr(bracket + 1, command.size() - bracket - 2);
    if (const auto reply = answers.find(name); reply != answers.end()) {
      Script(command, {reply->second});
    } else if (const auto carried = Carry(name, arguments)) {
      Script(command, {*carried});
    }
    return FakeLumCommands::InvokeCommand(command, expected, out);
  }
  int InvokeRPC(LumOperation operation, std::string_view data, std::string* out) override {
    const std::string name = "op " + std::to_string(static_cast<uint32_t>(operation));
    if (before) before(name);
    if (const auto failure = rpc_failures.find(name); failure != rpc_failures.end()) {
      *out = failure->second;
      return 0;
    }
    return FakeLumCommands::InvokeRPC(operation, data, out);
  }

  bool Heard(const std::string& part) const {
    return std::any_of(commands.begin(), commands.end(),
                       [&](const std::string& command) { return command.find(part) != std::string::npos; });
  }

  std::function<void(const std::string&)> before;
  std::map<std::string, std::string> rpc_failures;
  /// Replies by command name, in place of the host's own.
  std::map<std::string, std::string> answers;
  bool unused_ckln = false;

 private:
  static std::vector<std::string> Split(const std::string& text, char sign) {
    std::vector<std::string> parts(1);
    for (const char c : text) c == sign ? parts.emplace_back() : parts.back() += c;
    return parts;
  }
  std::string Listed(const std::function<bool(const std::string&)>& wanted) const {
    std::string list;
    for (const std::string& id : state_.SwitchIds()) {
      if (wanted(id)) list += (list.empty() ? "" : ",") + id;
    }
    return list.empty() ? "ok" : "ok|" + list;
  }
  std::optional<std::string> Carry(const std::string& name, const std::string& arguments) {
    if (name == "queryDvsListWithoutFlag") return Listed([](const std::string&) { return true; });
    if (name == "GetSecurityEnabledDvsIds") {
      return Listed([this](const std::string& id) {
        return state_.SwitchProperty(id, "host", port_props::kKlnSecurityEnabled).has_value();
      });
    }
    if (name == "queryDvsNames") return "ok|" + arguments;
    if (name == "applyDvsList") {
      std::vector<std::string> kept;
      const bool all = arguments.find("=True") != std::string::npos;
      for (const std::string& item : Split(Split(arguments, '|')[0], ',')) {
        if (!all) kept.push_back(item.substr(0, item.find('=')));
      }
      for (const std::string& id : state_.SwitchIds()) {
        const bool stays = std::find(kept.begin(), kept.end(), id) != kept.end();
        EXPECT_TRUE(stays || state_.RemoveSwitch(id));
      }
      return unused_ckln ? "1|ok" : "0|ok";
    }
    if (name == "applyDvses") {
      for (const std::string& record : Split(arguments, ';')) {
        const auto fields = Split(record, '|');
        EXPECT_TRUE(state_.MakeSwitch({fields[0], fields[1], fields[3], {fields[4]}, {"u1"}}));
        EXPECT_TRUE(state_.SetSwitchProperty(fields[0], "host", port_props::kVswitchStatus, TextZ("up")));
      }
      return "ok";
    }
    return std::nullopt;
  }
  static std::string TextZ(const char* text) { return std::string(text) + '\0'; }

  sim::SwitchState& state_;
};

/// Host configurations on a host with two switches, applied by one process after the other.
class HostConfigTest : public SwitchHostTest {
 protected:
  static constexpr const char* kNode = R"(id: "c1" transport_node_id: "node-1" phase: PHASE2_COMBINED )";
  static constexpr const char* kTwo =
      R"(host_switches { id: "502e1111-1111-1111-9d11-111111111111" name: "ks-1" type: 2 mtu: 1600
           transport_zone_id: "z1" static_address: true vdr_mac: "02:50:56:56:44:52" }
         host_switches { id: "502e2222-2222-2222-9d22-222222222222" name: "ks-2" type: 1 mtu: 1500
           transport_zone_id: "z2" static_address: true } )";
  static constexpr const char* kOne =
      R"(host_switches { id: "502e2222-2222-2222-9d22-222222222222" name: "ks-2" type: 1 mtu: 1500
           transport_zone_id: "z2" static_address: true } )";

  struct Killed {};

  HostConfigTest() {
    for (const char* dvs : {kOverlay, kVlanSwitch}) {
      EXPECT_TRUE(state->SetSwitchProperty(dvs, "host", port_props::kVswitchStatus, std::string("up\0", 3)));
    }
    std::string error;
    EXPECT_TRUE(router_library.Open(&error)) << error;
    lum.Script("GetTzToDvsMapping()", {std::string("ok|z1:") + kOverlay + ":KLN|z2:" + kVlanSwitch + ":NVS"});
    StartProcess();
  }

  /// Starts a process: everything in memory is new.
  void StartProcess() {
    process = std::make_unique<Process>(*this);
    script.before = nullptr;
    script.commands.clear();
    UpdateCacheMap(*process->context);
    process->health.setZemaLumReady();
  }

  static orlane::zem::switching::HostConfigMsg Config(const std::string& text) {
    orlane::zem::switching::HostConfigMsg config;
    EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &config)) << text;
    return config;
  }
  /// Applies the message; returns the manager's answer in text format.
  std::string Apply(const std::string& text) {
    HostConfigTaskQub(process->context, &sender, "corr", "reply", Config(text),
                      HostConfigTaskQub::InStore::kNo, "")
        .Run();
    const auto sent = sender.Take();
    return sent.size() == 1 ? sent[0] : "(no answer)";
  }
  /// Kills the process when `command` arrives.
  void KillAt(const std::string& command) {
    script.before = [command](const std::string& asked) {
      if (asked.find(command) == 0) throw Killed();
    };
  }
  std::string RouterOf(const std::string& dvs) {
    RouterLibrary::Mac mac;
    return router_library.GetVMAC(dvs, &mac) == 0 ? "connected" : "none";
  }

  struct Process {
    explicit Process(HostConfigTest& test) : switches(test.library), routers(test.router_library) {
      context = std::make_shared<HostConfigContext>(
          HostConfigContext{test.script, test.library, test.ports, switches, routers, endpoints,
                            high_performance, migration, health, host, options, test.files, nullptr, state,
                            follow_ups, [](Duration) { return true; }, port_lock});
    }

    ConfigOpsManager switches;
    RouterPorts routers;
    EndpointLibrary endpoints;
    HighPerformanceProfile high_performance{{}};
    MigrationRecord migration;
    NoPublisher publisher;
    HealthRecord health{publisher, false};
    HostIdentity host;
    OptionsStore options;
    HostConfigState state;
    NotedFollowUps follow_ups;
    Synchronizable port_lock;
    std::shared_ptr<HostConfigContext> context;
  };

  VirtualClock clock;
  ConfigFiles files{{dir.Path("host_config.bin"), dir.Path("mmode.bin")}};
  RouterLibrary router_library{BuiltLibrary("libvdrkln.so")};
  HostScript script{*state};
  FakeSender sender;
  std::unique_ptr<Process> process;
};

}  // namespace zem::zema
