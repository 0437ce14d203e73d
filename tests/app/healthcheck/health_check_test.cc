#include "app/healthcheck/health_check.h"

#include <stdlib.h>

#include "sim/switch/library_folder.h"
#include "sim/switch/sim_state.h"
#include "sim/switch/tree/uplinks.h"
#include "tests/mpaclient/channel_fixture.h"
#include "tests/support/temp_dir.h"

namespace zem::Tarvik {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr const char* kVertical = "HealthCheck";
constexpr const char* kDvs = "502e6b1a-77c0-41aa-9d11-000000000001";
constexpr const char* kDeploy = "com.orlane.vswitch.vlanmtucheck.deploy";

class HealthCheckTest : public ChannelTest {
 protected:
  HealthCheckTest() {
    ::setenv("ZEM_SIM_ROOT", directory.Path("sim").c_str(), 1);
    switches = std::make_unique<sim::SwitchState>();
    EXPECT_TRUE(switches->MakeSwitch({kDvs, "ks-1", "KLN", {}, {"u1", "u2"}}));
    // The machine's time does not pass here.
    sim::uplinks::SetCheckTime(0);
  }
  ~HealthCheckTest() override {
    if (app) app->Stop();
    EXPECT_THAT(switches->journal().Violations(), IsEmpty());
  }

  void Start(const std::string& library) {
    app = std::make_shared<HealthCheck>(provider, library);
    app->Start();
    StartManager();
    proxy_client->Start();
    clock.RunFor(seconds(20));
  }
  void Start() { Start(sim::LibraryFolder::Built() + "/libklnPublic.so"); }

  void Ask(int round, const std::string& more) {
    const size_t number = asked++;
    sim::Manager::SendRequest request{
        .vertical = kVertical,
        .member = "HealthCheckRequestMsg",
        .text = "round_id { first: 0 second: " + std::to_string(round) + " } " + more};
    EXPECT_EQ(manager->Send(request,
                            [this, number](const sim::HostAnswer& answer) {
                              const std::lock_guard lock(mutex);
                              const std::string text = sim::AnswerJson(kVertical, answer);
                              const size_t at = text.find("\"status\":");
                              answers[number] = at == std::string::npos ? text : text.substr(at + 9, 1);
                            }),
              "");
    clock.Settle();
  }
  static std::string Check(int seconds, const std::string& name = "ks-1") {
    return "test_time_s: " + std::to_string(seconds) + " vlan_mtu { switch_name: \"" + name +
           "\" range { first: 1 last: 3 } }";
  }
  // The reports since the last call.
  std::vector<std::string> TakeReports() {
    std::vector<std::string> reports;
    for (const auto& each : manager->record().ReceivedFrom(kVertical, last)) {
      last = each.number;
      if (each.type.ends_with("HealthCheckReportMsg")) reports.push_back(each.json);
    }
    return reports;
  }
  std::string Answer(size_t number) {
    const std::lock_guard lock(mutex);
    return answers.contains(number) ? answers[number] : "none";
  }
  void Fault(const std::string& line) {
    std::string error;
    EXPECT_TRUE(switches->AddFault(line, &error)) << error;
  }

  test::TempDir directory;
  std::unique_ptr<sim::SwitchState> switches;
  std::shared_ptr<HealthCheck> app;
  size_t asked = 0;
  std::map<size_t, std::string> answers;  // guarded by `mutex` while the clock runs
  uint64_t last = 0;
};

// The report comes at the first second beyond the whole seconds that the test was to take, and not before.
TEST_F(HealthCheckTest, TestsTakeTheirTime) {
  Start();
  EXPECT_TRUE(sim::uplinks::Configure(kDvs, "u2", {.mtu = 1500, .vlans = "2-3", .alias = "", .garble = ""}));
  Ask(1, Check(3));
  EXPECT_EQ(Answer(0), "2");
  clock.RunFor(milliseconds(310));
  EXPECT_EQ(switches->SwitchProperty(kDvs, "global", kDeploy), std::string("\x01\0\0\0\0", 5));
  clock.RunFor(milliseconds(3600));
  EXPECT_THAT(TakeReports(), IsEmpty());
  clock.RunFor(milliseconds(1500));
  const auto reports = TakeReports();
  ASSERT_EQ(reports.size(), 1U);
  EXPECT_THAT(
      reports[0],
      HasSubstr("\"entry\":[{\"uplink_name\":\"u1\",\"result\":2},{\"uplink_name\":\"u2\",\"result\":2,"
                "\"mtu_range\":[{\"first\":2,\"last\":3}],\"vlan_range\":[{\"first\":1,\"last\":1}]}]"));
  EXPECT_FALSE(switches->SwitchProperty(kDvs, "global", kDeploy));

  Ask(2, Check(0));
  Ask(3, Check(0));
  clock.RunFor(milliseconds(2500));
  const auto later = TakeReports();
  ASSERT_EQ(later.size(), 1U) << "a second test of a switch takes the first one's place";
  EXPECT_THAT(later[0], HasSubstr("\"second\":\"3\""));
}

// Thirty-two wait, a round waits once; what is refused is told at once.
TEST_F(HealthCheckTest, WhatWaitsIsBounded) {
  Start();
  for (int round = 1; round <= 31; ++round) Ask(round, "");
  Ask(1, "");
  EXPECT_EQ(Answer(31), "5");
  Ask(32, "");
  Ask(33, "");
  EXPECT_EQ(Answer(32), "2");
  EXPECT_EQ(Answer(33), "6");
  EXPECT_TRUE(log.Contains("Failed to prepare RPC response"));
  clock.RunFor(milliseconds(310));
  const auto reports = TakeReports();
  EXPECT_EQ(reports.size(), 32U) << "none of them says what to check";
  EXPECT_THAT(reports[0], HasSubstr("\"status\":4"));
  EXPECT_THAT(reports[0], HasSubstr("\"second\":\"1\"")) << "in the order in which they came";
  for (int i = 0; i < 65; ++i) {
    Ask(100 + i, Check(60, "switch-" + std::to_string(i)));
    EXPECT_TRUE(
        switches->MakeSwitch({"id-" + std::to_string(i), "switch-" + std::to_string(i), "KLN", {}, {}}));
    clock.RunFor(milliseconds(310));
  }
  const auto refused = TakeReports();
  ASSERT_EQ(refused.size(), 1U);
  EXPECT_THAT(refused[0], HasSubstr("\"status\":8"));
}

TEST_F(HealthCheckTest, WithoutTheLibraryThereIsNoChecker) {
  Start(directory.Path("missing.so"));
  EXPECT_TRUE(log.Contains("Error in opening libklnPublic.so ["));
  Ask(1, Check(1));
  EXPECT_EQ(Answer(0), "2");
  clock.RunFor(milliseconds(310));
  const auto reports = TakeReports();
  ASSERT_EQ(reports.size(), 1U);
  EXPECT_THAT(reports[0], HasSubstr("\"status\":4"));
}

// One property that goes ends the switch's test, and that counts; a request that cannot be set leaves no test
// behind.
TEST_F(HealthCheckTest, TheSwitchRefuses) {
  Start();
  Ask(1, Check(0));
  clock.RunFor(milliseconds(310));
  Fault("DVSKNL_GlobalPropClear prop=com.orlane.vswitch.vlanmtucheck.param ret=0xbad0001");
  clock.RunFor(seconds(2));
  EXPECT_EQ(TakeReports().size(), 1U);
  EXPECT_FALSE(log.Contains("Failed to remove health check instance"));

  switches->ClearFaults("");
  Ask(2, Check(0));
  clock.RunFor(milliseconds(310));
  Fault("DVSKNL_GlobalPropClear ret=0xbad0003");
  clock.RunFor(seconds(2));
  EXPECT_EQ(TakeReports().size(), 1U);
  EXPECT_TRUE(log.Contains(std::string("Failed to remove health check instance from KLN ") + kDvs));
  EXPECT_EQ(log.Count("Cleaned up VLAN/MTU KLN properties"), 2U);

  switches->ClearFaults("");
  Fault("DVSKNL_GlobalPropSet prop=com.orlane.vswitch.vlanmtucheck.param ret=0xbad0003");
  Ask(3, Check(0));
  clock.RunFor(seconds(4));
  const auto reports = TakeReports();
  ASSERT_EQ(reports.size(), 1U);
  EXPECT_THAT(reports[0], HasSubstr("\"status\":8"));
}

}  // namespace
}  // namespace zem::Tarvik
