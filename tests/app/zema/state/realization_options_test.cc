#include "app/zema/state/realization_options.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace zem::zema {
namespace {

class RealizationOptionsTest : public ::testing::Test {
 protected:
  std::string File(const std::string& text) {
    const std::string path = dir.Path("zema.json");
    std::ofstream(path) << text;
    return path;
  }

  test::LogCapture log;
  test::TempDir dir;
  HostVersion host{"7.0.3", "product 7.0.3"};
};

TEST_F(RealizationOptionsTest, ValuesOfEachTypeAndDefaults) {
  OptionsStore store(File(R"({"mp": {"lsMsgBatchInterval": 7, "lsMsgIncomingWaitInBatch": "2"},
      "zema": {"controller-info": true, "group": "ops", "preCheckHealth": "false"},
      "lum": {"noVxlanStack": "true", "knlPingTryTimes": 0}, "resync": {"intervalInSec": "soon"}})"));
  ASSERT_EQ(store.Parse({}, host), 0);
  const RealizationOptions options = store.Snapshot();
  EXPECT_EQ(options.ls_msg_batch_interval, 7);
  EXPECT_EQ(options.ls_msg_incoming_wait_in_batch, 2);
  EXPECT_TRUE(options.controller_info);
  EXPECT_EQ(options.group, "ops");
  EXPECT_FALSE(options.pre_check_health);
  EXPECT_EQ(options.no_vxlan_stack, "true");
  EXPECT_EQ(options.resync_interval, 3600) << "a value of another type leaves the default";
  EXPECT_EQ(options.ls_ack_batch_interval, 0);
  EXPECT_EQ(options.vif_operation_timeout, 55);
}

// "clear" reads no file, so its options are the code's own defaults.
TEST_F(RealizationOptionsTest, DefaultsOfTheTableAreThoseOfTheCode) {
  OptionsStore from_file(File("{}"));
  OptionsStore from_code("/nowhere");
  ASSERT_EQ(from_file.Parse({}, host), 0);
  ASSERT_EQ(from_code.Parse({"clear"}, host), 0);
  RealizationOptions expected = from_code.Snapshot();
  expected.clear = false;
  EXPECT_EQ(from_file.Snapshot(), expected);
}

TEST_F(RealizationOptionsTest, VifTimeoutDependsOnTheHostAndIsNeverBelow25) {
  struct Case {
    const char* version;
    const char* product;
    const char* file;
    int expected;
  };
  for (const Case& each :
       {Case{"6.5.0", "product 6.5.0", "{}", 55}, Case{"6.5.0", "product 6.5.0 Update 1", "{}", 25},
        Case{"6.4.9", "", "{}", 25}, Case{"10.0.1", "", "{}", 55}, Case{"", "", "{}", 25},
        Case{"7.0.3", "", R"({"mp": {"vifOperationTimeout": 10}})", 25},
        Case{"7.0.3", "", R"({"mp": {"vifOperationTimeout": 24}})", 25},
        Case{"6.0.0", "", R"({"mp": {"vifOperationTimeout": 70}})", 70}}) {
    OptionsStore store(File(each.file));
    ASSERT_EQ(store.Parse({}, {each.version, each.product}), 0);
    EXPECT_EQ(store.Snapshot().vif_operation_timeout, each.expected) << each.version << " " << each.file;
    ASSERT_EQ(store.Reload(), "");
    EXPECT_EQ(store.Snapshot().vif_operation_timeout, each.expected) << "the host is the same";
  }
}

// Contradicting options are refused with a text of their own, and the options stay unchanged.
TEST_F(RealizationOptionsTest, Refusals) {
  struct Case {
    const char* file;
    const char* text;
  };
  for (const Case& each : {
           Case{R"({"mp": {"lsIncomingWaitInBatch": 5}})",
                "lsIncomingWaitInBatch(5) cannot be greater than lsAckBatchInterval(0)"},
           Case{R"({"mp": {"lsMsgIncomingWaitInBatch": 61}})",
                "lsMsgIncomingWaitInBatch(61) cannot be greater than lsMsgBatchInterval(60)"},
           Case{R"({"lum": {"opaqueNetworkDeleteMax": 0}})",
                "opaqueNetworkApplyMax(1000) and opaqueNetworkDeleteMax(0) cannot be less than 1"},
           Case{"", "is empty or does not exist"},
           Case{"{\"mp\": ", "Wrong json format ConfigFile"},
       }) {
    OptionsStore store(File(R"({"zema": {"group": "first"}})"));
    ASSERT_EQ(store.Parse({}, host), 0);
    File(each.file);
    EXPECT_EQ(store.Reload(), "Failed to reload options from config file");
    EXPECT_TRUE(log.Contains(each.text)) << each.text;
    EXPECT_EQ(store.Snapshot().group, "first");
  }
}

TEST_F(RealizationOptionsTest, Arguments) {
  OptionsStore store("/nowhere");
  EXPECT_EQ(store.Parse({}, host), -1);
  EXPECT_EQ(store.Parse({"clear", "-f"}, host), 0) << "no file is read";
  EXPECT_TRUE(store.Snapshot().clear && store.Snapshot().force && !store.Snapshot().debug);
  EXPECT_EQ(store.Parse({"-config=" + File(R"({"zema": {"group": "x"}})"), "-d"}, host), 0);
  EXPECT_TRUE(store.Snapshot().debug);
  EXPECT_EQ(store.Snapshot().group, "x");
  EXPECT_EQ(store.Parse({"-q"}, host), -1);
  EXPECT_TRUE(log.Contains("Invalid input from command line: [-q]"));
  File(R"({"zema": {"group": "y"}})");
  EXPECT_EQ(store.Reload(), "");
  EXPECT_EQ(store.Snapshot().group, "y");
}

}  // namespace
}  // namespace zem::zema
