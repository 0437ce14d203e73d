#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <string>

#include "app/zema/hostlib/switch_library.h"
#include "app/zema/ports/port_description.h"
#include "app/zema/ports/port_ops_manager.h"
#include "framework/node/host_identity.h"
#include "sim/switch/library_folder.h"
#include "sim/switch/sim_state.h"
#include "tests/app/zema/proxy/fake_lum_commands.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace zem::zema {

/// A host with two switches, behind the simulated libraries.  At the end no rule of theirs was broken.
class SwitchHostTest : public testing::Test {
 protected:
  static constexpr const char* kOverlay = "50 2e 11 11 11 11 11 11-9d 11 11 11 11 11 11 11";
  static constexpr const char* kVlanSwitch = "50 2e 22 22 22 22 22 22-9d 22 22 22 22 22 22 22";
  static constexpr const char* kVif = "vif-1";
  static constexpr const char* kLs = "ls-1";

  SwitchHostTest() {
    setenv("ZEM_SIM_ROOT", dir.Path("sim").c_str(), 1);
    state = std::make_unique<sim::SwitchState>();
    EXPECT_TRUE(state->MakeSwitch({kOverlay, "ks-1", "KLN", {"z1", "z3"}, {"u1", "u2"}}));
    EXPECT_TRUE(state->MakeSwitch({kVlanSwitch, "ks-2", "NVS", {"z2"}, {"u1"}}));
    std::string error;
    EXPECT_TRUE(library.Open(&error)) << error;
    ports.zones().SetTzToDvsCache(
        {{"z1", kOverlay, "KLN"}, {"z2", kVlanSwitch, "NVS"}, {"z3", kOverlay, "KLN"}});
  }
  ~SwitchHostTest() override {
    library.Close();
    EXPECT_THAT(state->journal().Violations(), testing::IsEmpty());
  }

  static std::string BuiltLibrary(const std::string& name) {
    return sim::LibraryFolder::Built() + "/" + name;
  }

  void Fault(const std::string& line) {
    std::string error;
    ASSERT_TRUE(state->AddFault(line, &error)) << error;
  }

  std::string Vm(const std::string& name) const { return dir.Path(name) + "/" + name + ".cfg"; }
  std::string PortFile(const std::string& vm, const std::string& dvs, const std::string& port) const {
    return dir.Path(vm) + "/.dvsData/" + dvs + "/" + port;
  }

  static PortConfigSpec Description(const std::string& port, const std::string& zone = "z1") {
    PortConfigSpec description;
    description.port_id = port;
    description.zone_id = zone;
    description.switch_id = kLs;
    return description;
  }

  void Create(const PortConfigSpec& description, const std::string& vif, const std::string& gcf_path) {
    ASSERT_TRUE(ports.creation().CreatePort(description, vif, gcf_path, true));
  }

  std::string Property(const std::string& dvs, const std::string& port, const std::string& name) const {
    return state->PortProperty(dvs, port, name).value_or("(none)");
  }

  test::TempDir dir;
  test::LogCapture log{kLogInfo};
  std::unique_ptr<sim::SwitchState> state;
  SwitchLibrary library{BuiltLibrary("libklnPublic.so")};
  FakeLumCommands lum;
  /// Has no id at first.
  HostIdentity identity;
  PortOpsManager ports{library, lum, identity};
};

}  // namespace zem::zema
