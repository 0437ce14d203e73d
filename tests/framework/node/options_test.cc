#include "framework/node/options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/property_tree/ptree.hpp>

#include "framework/node/platform_info.h"
#include "platform/wft/workflow_util.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace zem::Tarvik {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class OptionsTest : public ::testing::Test {
 protected:
  OptionsTest() : identity_(SetHostIdentity(HostIdentity())) {
    OptionsTree().clear();
    ApplyModeDefaults();
    capture_.Clear();
  }
  ~OptionsTest() override {
    Logger::SetConsoleCopy(false);
    for (int i = 0; i < static_cast<int>(Library::kCount); ++i)
      LibraryLevel(static_cast<Library>(i)) = kLogInfo;
    SetHostIdentity(identity_);
  }

  // The flags are the process's: each test begins with those of a new one.
  void ApplyModeDefaults() {
    for (const Mode mode :
         {Mode::kTraceflow, Mode::kPktCap, Mode::kLldp, Mode::kAlarmsProvider, Mode::kLivetrace,
          Mode::kHealthCheck, Mode::kCtxtEng, Mode::kZemda, Mode::kSupportBundleClient, Mode::kZemaApp,
          Mode::kBmsConfigurator, Mode::kEdgesvc}) {
      SetMode(mode, true);
    }
    for (const Mode mode : {Mode::kSampleClient, Mode::kEdgeIdsEvt, Mode::kOvsDpdk, Mode::kOvsDpdkCreateVif,
                            Mode::kLacpBonding}) {
      SetMode(mode, false);
    }
  }

  void RunOn(const std::string& node_type) {
    HostIdentity identity;
    identity.issue_path = directory_.Write("issue", "node-type: " + node_type + "\n");
    identity.uname = [](utsname*) { return 0; };
    SetHostIdentity(identity);
    ASSERT_EQ(LoadPlatformInfo(), 0);
    capture_.Clear();
  }

  bool Load(const std::string& children) {
    return LoadOptions(directory_.Write("tarvik.xml", "<config><tarvik>" + children + "</tarvik></config>"));
  }

  bool IsOn(Mode mode) {
    uint8_t on = 2;
    GetMode(mode, &on);
    return on == 1;
  }

  test::TempDir directory_;
  test::LogCapture capture_;
  const HostIdentity identity_;
};

TEST_F(OptionsTest, BadFilesAreRefusedAndChangeNothing) {
  ASSERT_TRUE(Load("<log><level>3</level></log>"));
  for (const std::string& content :
       {std::string(), std::string("<config>"), std::string("<config><other/></config>"),
        std::string("<tarvik><log><level>1</level></log></tarvik>"), std::string("\0\0\xff", 3)}) {
    capture_.Clear();
    EXPECT_FALSE(LoadOptions(directory_.Write("bad.xml", content))) << content;
    EXPECT_EQ(capture_.Count("errorCode=\"OPS00001\"] Failed loading config file: "), 1u) << content;
    EXPECT_EQ(OptionsTree().get<int>("log.level"), 3);
  }
  EXPECT_FALSE(LoadOptions(directory_.Path("missing.xml")));
  EXPECT_TRUE(capture_.Contains("Try loading config file: " + directory_.Path("missing.xml")));
}

TEST_F(OptionsTest, LoggingOptionsFallBackToTheirDefaults) {
  ASSERT_TRUE(
      Load("<!-- c --><log><level> info </level><metrics>1</metrics><net>7</net><rpc>-1</rpc>"
           "<sha>x</sha><outputToConsole>yes</outputToConsole></log>"));
  ApplyLoggingOptions();
  EXPECT_EQ(Logger::logLevel, 5u);
  EXPECT_TRUE(capture_.Contains("SetLogLevel set tarvik logLevel to: debug"));
  EXPECT_EQ(LibraryLevel(Library::kMetrics), 1);
  for (const Library library : {Library::kNet, Library::kRpc, Library::kSha})
    EXPECT_EQ(LibraryLevel(library), 4);
  ASSERT_TRUE(Load(
      "<log><level>2</level></log><tracing><trace_level>9</trace_level><log_level>6</log_level></tracing>"));
  ApplyLoggingOptions();
  ApplyTracingOptions();
  EXPECT_EQ(Logger::logLevel, 2u);
  EXPECT_EQ(wft::WorkflowUtil::GetTraceLevel(), 2);
  EXPECT_EQ(LibraryLevel(Library::kWorkflow), 6);
}

// Operators compare the start of two nodes by these lines.
TEST_F(OptionsTest, SettersLogInOneOrder) {
  RunOn("zem-qub");
  ASSERT_TRUE(
      Load("<app><lldp>false</lldp><pktcap>0</pktcap><zemda>maybe</zemda></app><ovs><dpdk>1</dpdk></ovs>"));
  capture_.Clear();
  ApplyModeOptions();
  EXPECT_THAT(capture_.Texts(),
              ElementsAre("SetHealthCheckMode: true", "SetCtxtEngMode: true", "SetEdgeIdsEvtMode: false",
                          "SetZemdaMode: true", "SetSampleClientMode: false", "SetTraceflowAppMode: true",
                          "SetPktCapMode: false", "SetLldpMode: false", "SetAlarmsProviderMode: true",
                          "SetSupportBundleClientMode: true", "SetZemaAppMode: true", "SetEdgesvcMode false",
                          "SetOvsDpdkMode true", "SetOvsDpdkCreateVif false", "SetLacpBonding false",
                          "SetLivetraceAppMode: true", "SetBMSConfiguratorMode true"));
  EXPECT_FALSE(IsOn(Mode::kLldp));
  EXPECT_TRUE(IsOn(Mode::kOvsDpdk));
}

TEST_F(OptionsTest, NodeTypeGatesOptions) {
  struct Case {
    const char* node_type;
    bool edge_ids, zemda, bundle, zema, edge_service;
  };
  for (const Case& c :
       {Case{"zem-qub", false, true, true, true, false}, Case{"zem-edge", true, false, true, true, true},
        Case{"zem-public-cloud-gateway", true, true, true, true, true},
        Case{"zem-manager", false, true, true, false, false},
        Case{"zem-keymanager", false, true, false, false, false},
        Case{"zem-bmc", false, true, true, true, false}}) {
    ApplyModeDefaults();
    RunOn(c.node_type);
    ASSERT_TRUE(Load("<app><edgeids>true</edgeids></app>"));
    ApplyModeOptions();
    EXPECT_EQ(IsOn(Mode::kEdgeIdsEvt), c.edge_ids) << c.node_type;
    EXPECT_EQ(IsOn(Mode::kZemda), c.zemda) << c.node_type;
    EXPECT_EQ(IsOn(Mode::kSupportBundleClient), c.bundle) << c.node_type;
    EXPECT_EQ(IsOn(Mode::kZemaApp), c.zema) << c.node_type;
    EXPECT_EQ(IsOn(Mode::kEdgesvc), c.edge_service) << c.node_type;
  }
}

}  // namespace
}  // namespace zem::Tarvik
