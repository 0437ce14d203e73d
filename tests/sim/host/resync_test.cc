// The script that the agent's resync runs, over a host made by hand.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

#include "framework/process/child_process.h"
#include "sim/host/host_state.h"
#include "sim/switch/sim_state.h"
#include "sim/switch/vif_ports.h"

namespace zem::sim {
namespace {

namespace fs = std::filesystem;

constexpr const char* kExternalId = "com.orlane.port.extraConfig.vnic.external.id";
constexpr const char* kOpaqueNetwork = "com.orlane.port.extraConfig.opaqueNetwork.id";
constexpr const char* kPending = "com.orlane.port.extraConfig.portOp.pending";

class ResyncScriptTest : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/resync.XXXXXX";
    ASSERT_NE(::mkdtemp(name), nullptr);
    root = name;
    ::setenv("ZEM_SIM_ROOT", root.c_str(), 1);
    state = std::make_unique<SwitchState>();
    host = std::make_unique<HostState>(root);
    ASSERT_TRUE(state->MakeSwitch({"dvs", "ks-1", "KLN", {"zone"}, {}}));
    ASSERT_EQ(Python({"simstate.py", "init"}), "");
  }
  void TearDown() override { fs::remove_all(root); }

  static std::string Python(std::vector<std::string> words) {
    Tarvik::ChildProcess::Options options;
    words[0] = std::string(ZEM_SIM_HOST) + "/" + words[0];
    options.argv = {"/usr/bin/python3"};
    options.argv.insert(options.argv.end(), words.begin(), words.end());
    options.time_limit = std::chrono::seconds(20);
    const Tarvik::ChildResult ended = Tarvik::ChildProcess(std::move(options)).Run();
    std::string text = ended.output + ended.errors;
    while (text.ends_with('\n')) text.pop_back();
    return text;
  }
  static std::string Resync(const char* vm_check = "0") { return Python({"resync.py", "3600", vm_check}); }

  void Port(const std::string& port, const std::string& vif, const std::string& pending) {
    ASSERT_EQ(AddPort({"dvs", port}), "");
    ASSERT_TRUE(state->SetPortProperty("dvs", port, kOpaqueNetwork, "web"));
    ASSERT_TRUE(vif.empty() || state->SetPortProperty("dvs", port, kExternalId, vif));
    ASSERT_TRUE(pending.empty() || state->SetPortProperty("dvs", port, kPending, pending));
  }
  void Vm(const std::string& uuid, const std::string& path, const std::string& vif, bool connected,
          const std::string& ls = "web") {
    host->Set("vms." + uuid, R"({"path":")" + path + R"(","power":"on","vnics":{"eth0":{"vif":")" + vif +
                                 R"(","ls":")" + ls + R"(","connected":)" + (connected ? "true" : "false") +
                                 "}}}");
  }

  std::string root;
  std::unique_ptr<SwitchState> state;
  std::unique_ptr<HostState> host;
};

struct Row {
  const char* what;
  const char* vif;  // on the port
  const char* pending;
  const char* vnic_vif;
  bool connected;
  const char* vnic_ls;
  const char* ports_only;
  const char* with_vms;
};
const Row kRows[] = {
    {"told", "v1", "", "v1", true, "web", "ok", "ok"},
    {"attached while nobody was told", "v1", "attach_port", "v1", true, "web", "attach|v1|web|/vm/a.cfg|p",
     "attach|v1|web|/vm/a.cfg|p"},
    {"attached, and gone since", "v1", "attach_port", "v1", false, "web", "ok", "ok"},
    {"attached, and on another switch since", "v1", "attach_port", "v1", true, "app", "ok",
     "attach|v1|app|/vm/a.cfg"},
    {"detached while nobody was told", "v1", "detach_port", "v1", false, "web", "detach|v1|p|web|/vm/a.cfg",
     "detach|v1|p|web|/vm/a.cfg"},
    {"detached, and attached again since", "v1", "detach_port", "v1", true, "web", "ok", "ok"},
    {"the port is another VIF's by now", "v2", "detach_port", "v1", true, "web", "detach|v2|p|web|knlnic",
     "detach|v2|p|web|knlnic,attach|v1|web|/vm/a.cfg"},
    {"the port is nobody's by now", "", "detach_port", "v1", false, "web", "ok", "ok"},
    {"running without a port", "", "", "v1", true, "web", "ok", "attach|v1|web|/vm/a.cfg"},
};

TEST_F(ResyncScriptTest, SaysWhatThePortsAndVmsAgreeOn) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.what);
    ASSERT_TRUE(state->LosePorts("dvs"));
    Port("p", row.vif, row.pending);
    Vm("vm", "/vm/a.cfg", row.vnic_vif, row.connected, row.vnic_ls);
    EXPECT_EQ(Resync("0"), row.ports_only);
    EXPECT_EQ(Resync("1"), row.with_vms);
  }
  const Json runs = host->ResyncRuns(2);
  const cJSON* const last = cJSON_GetArrayItem(runs.get(), 1);
  EXPECT_EQ(cJSON_GetObjectItem(last, "interval")->valueint, 3600);
  EXPECT_TRUE(cJSON_IsTrue(cJSON_GetObjectItem(last, "doVmCheck")));
  EXPECT_STREQ(cJSON_GetObjectItem(last, "reply")->valuestring, "attach|v1|web|/vm/a.cfg");
}

TEST_F(ResyncScriptTest, LeavesOutWhatTheFormCannotSayAndFollowsItsFaults) {
  Port("p", "v1", "attach_port");
  Port("q", "v2", "attach_port");
  Vm("a", "/vm/a,b.cfg", "v1", true);
  Vm("b", "/vm/b.cfg", "v2", true);
  EXPECT_EQ(Resync(), "attach|v2|web|/vm/b.cfg|q");
  const Json runs = host->ResyncRuns(1);
  const cJSON* const left_out = cJSON_GetObjectItem(cJSON_GetArrayItem(runs.get(), 0), "leftOut");
  EXPECT_EQ(cJSON_GetArraySize(left_out), 1);

  host->AddFault("^resync(\\(|=|$)\t1\t1\treply\terror: as the fault says");
  EXPECT_EQ(Resync(), "attach|v2|web|/vm/b.cfg|q");
  EXPECT_EQ(Resync(), "error: as the fault says");
  EXPECT_EQ(Resync(), "attach|v2|web|/vm/b.cfg|q");
  EXPECT_EQ(Python({"resync.py", "0x1", "0"}).substr(0, 6), "error:");
}

}  // namespace
}  // namespace zem::sim
