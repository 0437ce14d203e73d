#include "framework/node/platform_info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "framework/process/shutdown_pipe.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace zem::Tarvik {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;

template <const char* kSystem, const char* kRelease>
int FakeUname(utsname* names) {
  std::strcpy(names->sysname, kSystem);
  std::strcpy(names->release, kRelease);
  return 0;
}
constexpr char kLinux[] = "Linux";
constexpr char kHypercore[] = "Hypercore";
constexpr char kOther[] = "Other";
constexpr char k650[] = "6.5.0";
constexpr char k65[] = "6.5";
constexpr char k608[] = "6.7.1-x";

class PlatformInfoTest : public ::testing::Test {
 protected:
  PlatformInfoTest() : before_(SetHostIdentity(HostIdentity())) { EXPECT_TRUE(OpenShutdownPipe()); }
  ~PlatformInfoTest() override { SetHostIdentity(before_); }

  int Load(const std::string& issue, int (*uname)(utsname*) = &FakeUname<kOther, k650>,
           const std::string& distribution_command = "true") {
    capture_.Clear();
    HostIdentity identity;
    identity.issue_path = issue.empty() ? directory_.Path("none") : directory_.Write("issue", issue);
    identity.uname = uname;
    identity.distribution_command = distribution_command;
    SetHostIdentity(identity);
    return LoadPlatformInfo();
  }

  test::TempDir directory_;
  test::LogCapture capture_;
  const HostIdentity before_;
};

TEST_F(PlatformInfoTest, NodeTypeIsTheWholeValueOfTheFirstLine) {
  struct Case {
    const char* issue;
    uint32_t type;
    const char* line;
  };
  for (const Case& c : {
           Case{"node-type: zem-qub\n", 1, "Running on QUB node, version 0.0.0."},
           Case{"x\nnode-type: zem-kvm", 2, "Running on KVM node."},
           Case{"node-type: zem-edge\nnode-type: zem-qub\n", 4, "Running on Edge node."},
           Case{"node-type: zem-manager\n", 8, "Running on Manager node."},
           Case{"node-type: zem-controller\n", 16, "Running on Controller node."},
           Case{"node-type: zem-public-cloud-gateway\n", 32, "Running on Public Cloud Gateway node."},
           Case{"node-type: zem-keymanager\n", 64, "Running on Keymanager node."},
           Case{"node-type: zem-policy-manager\n", 128, "Running on Policy manager node."},
           Case{"node-type: zem-cloud-service-manager\n", 256, "Running on Cloud service manager node."},
           Case{"node-type: zemaas-dashboard\n", 512, "Running on zemass dashboard node."},
           Case{"node-type: zem-host-public-cloud\n", 1024, "Running on host public cloud node."},
           Case{"node-type: zem-bms\n", 2048, "Running on bare metal server"},
           Case{"node-type: zem-bmc\n", 4096, "Running on bare metal container"},
           Case{"node-type: zem-manager zem-controller zem-policy\n", 8192, "Running on unified appliance"},
           Case{"node-type: global-manager\n", 16384, "Running on global manager"},
           Case{"node-type:zem-qub\n", 0, "Running on unknown node."},
           Case{"node-type: zem-qub \n", 0, "Running on unknown node."},
           Case{"node-type: \n", 0, "Running on unknown node."},
           Case{"", 0, "Running on unknown node."},
       }) {
    EXPECT_EQ(Load(c.issue), c.type == 0 ? -1 : 0) << c.issue;
    EXPECT_EQ(GetNodeType(), c.type) << c.issue;
    EXPECT_THAT(capture_.Texts(), ElementsAre(c.line)) << c.issue;
  }
}

TEST_F(PlatformInfoTest, HypervisorKernelGivesVersionAndDefaultType) {
  EXPECT_EQ(Load("", &FakeUname<kHypercore, k650>), 0);
  EXPECT_EQ(GetNodeType(), static_cast<uint32_t>(kNodeQub));
  EXPECT_THAT(capture_.Texts(), ElementsAre("Running on QUB node, version 6.5.0."));
  EXPECT_EQ(GetKernelRelease(), "6.5.0");
  EXPECT_TRUE(IsVersion65());
  EXPECT_FALSE(IsVersionAbove607());

  EXPECT_EQ(Load("", &FakeUname<kHypercore, k608>), 0);
  EXPECT_FALSE(IsVersion65());
  EXPECT_TRUE(IsVersionAbove607());

  EXPECT_EQ(Load("", &FakeUname<kHypercore, k65>), 0);
  EXPECT_THAT(capture_.Texts(), ElementsAre("uname() failed, invalid release version 6.5",
                                            "Running on QUB node, version 0.0.0."));

  EXPECT_EQ(Load("node-type: zem-kvm\n", [](utsname*) { return -1; }), 0);
  EXPECT_THAT(capture_.Texts(), ElementsAre("uname() failed", "Running on KVM node."));
  EXPECT_EQ(GetKernelRelease(), "");
}

TEST_F(PlatformInfoTest, DistributionComesFromItsTool) {
  struct Case {
    const char* command;
    bool (*flag)();
    const char* line;
  };
  for (const Case& c : {Case{"echo Ubuntu", &IsUbuntu, "running on Ubuntu..."},
                        Case{"echo RedHatEnterprise", &IsRedHat, "running on RedHat..."},
                        Case{"echo CentOS", &IsCentOs, "running on CentOS..."},
                        Case{"echo SUSE", &IsSuse, "running on SUSE..."},
                        Case{"echo OracleServer", &IsOracleLinux, "running on OEL..."},
                        Case{"/nonexistent/tool 2>/dev/null", nullptr, "running on unknown os..."}}) {
    EXPECT_EQ(Load("node-type: zem-kvm\n", &FakeUname<kLinux, k650>, c.command), 0);
    EXPECT_THAT(capture_.Texts(), Contains(c.line));
    int flags = 0;
    for (bool (*flag)() : {&IsUbuntu, &IsRedHat, &IsCentOs, &IsSuse, &IsOracleLinux}) {
      EXPECT_EQ(flag(), flag == c.flag);
      flags += flag();
    }
    EXPECT_EQ(flags, c.flag == nullptr ? 0 : 1);
  }
}

// The file tests look for words in the first line that holds the key, however it is written, at the time of
// asking.
TEST_F(PlatformInfoTest, FileTestsSearchTheLine) {
  struct Case {
    const char* issue;
    bool manager, controller, appliance, gateway, hyperv, host, edge;
  };
  for (const Case& c : {
           Case{"node-type:zem-qub\n", false, false, false, false, false, true, false},
           Case{"node-type: my-zem-manager-2\n", true, false, false, false, false, false, false},
           Case{"node-type: zem-manager zem-controller\n", true, true, true, false, false, false, false},
           Case{"node-type: global-manager\n", false, false, true, false, false, false, false},
           Case{"node-type: zem-public-cloud-gateway\n", false, false, false, true, false, false, false},
           Case{"node-type: zem-hyperv\n", false, false, false, false, true, false, false},
           Case{"node-type: x\nnode-type: zem-edge\n", false, false, false, false, false, false, false},
           Case{"node-type: zem-edge\n", false, false, false, false, false, false, true},
           Case{"", false, false, false, false, false, false, false},
       }) {
    static_cast<void>(Load(c.issue));
    EXPECT_EQ(IsZemManager(), c.manager) << c.issue;
    EXPECT_EQ(IsZemController(), c.controller) << c.issue;
    EXPECT_EQ(IsUnifiedAppliance(), c.appliance) << c.issue;
    EXPECT_EQ(IsPublicCloudGateway(), c.gateway) << c.issue;
    EXPECT_EQ(IsHyperV(), c.hyperv) << c.issue;
    EXPECT_EQ(IsHostNode(), c.host) << c.issue;
    EXPECT_EQ(IsEdgeNode(), c.edge) << c.issue;
  }
  capture_.Clear();
  IsZemManager();
  IsPublicCloudGateway();
  IsHostNode();
  EXPECT_THAT(capture_.Texts(), ElementsAre("Running on zem manager: False", "Running on PCG node: False"));
}

}  // namespace
}  // namespace zem::Tarvik
