#include "app/zema/state/health_record.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>

#include "tests/support/log_capture.h"

namespace zem::zema {
namespace {

// Switches that keep their properties.
class Switches final : public HealthPublisher {
 public:
  Outcome SetProperty(const std::string& host_switch, const std::string& name, const void* data, size_t size,
                      uint32_t flags) override {
    if (host_switch == broken) return Outcome::Failed("no such switch");
    properties[host_switch][name] = std::string(static_cast<const char*>(data), size);
    last_flags[name] = flags;
    ++writes;
    return Outcome::Done();
  }
  Outcome RemoveProperty(const std::string& host_switch, const std::string& name) override {
    properties[host_switch].erase(name);
    return Outcome::Done();
  }
  bool SecurityOnly() override { return security_only; }

  std::string Status(const std::string& host_switch) {
    return properties[host_switch]["com.orlane.common.opaqueDvs.status.component.zema"].c_str();
  }

  std::map<std::string, std::map<std::string, std::string>> properties;
  std::map<std::string, uint32_t> last_flags;
  std::string broken;
  bool security_only = false;
  int writes = 0;
};

class HealthRecordTest : public ::testing::Test {
 protected:
  HealthRecordTest() { record.setDvsNameVdrMacs({{"dvs-1", {}}, {"dvs-2", {}}}); }

  void AllUp() {
    record.setZemaLumReady();
    record.opaqueSocketConnected();
    record.mpaConnected();
  }

  test::LogCapture log;
  Switches switches;
  HealthRecord record{switches, false};
};

// Every part has to be up; the fall of any part takes the status down on all switches at once, and its rise
// restores it.
TEST_F(HealthRecordTest, AnyOneDownIsDown) {
  AllUp();
  EXPECT_TRUE(record.healthy());
  EXPECT_EQ(switches.Status("dvs-1"), "up");
  EXPECT_EQ(switches.Status("dvs-2"), "up");
  EXPECT_EQ(switches.last_flags["com.orlane.common.opaqueDvs.status.component.zema"], 16u);
  struct Part {
    void (HealthRecord::*fall)();
    void (HealthRecord::*rise)();
  };
  for (const Part& part :
       {Part{&HealthRecord::mpaDisconnected, &HealthRecord::mpaConnected},
        Part{&HealthRecord::opaqueSocketDisconnected, &HealthRecord::opaqueSocketConnected},
        Part{&HealthRecord::setZemaLumNotReady, &HealthRecord::setZemaLumReady},
        Part{&HealthRecord::setZemaStatusDown, &HealthRecord::setZemaStatusUp},
        Part{&HealthRecord::enterTnMmode, &HealthRecord::exitTnMmode}}) {
    (record.*part.fall)();
    EXPECT_FALSE(record.healthy());
    EXPECT_EQ(switches.Status("dvs-2"), "down");
    const int writes = switches.writes;
    (record.*part.fall)();
    EXPECT_EQ(switches.writes, writes) << "it is told once";
    (record.*part.rise)();
    EXPECT_TRUE(record.healthy());
    EXPECT_EQ(switches.Status("dvs-1"), "up");
  }
  record.setShuttingDown();
  record.mpaConnected();
  EXPECT_FALSE(record.healthy()) << "for good";
}

// When a switch refuses the status, the published status stays and the next check tries again.
TEST_F(HealthRecordTest, FailedPublicationIsTriedAgain) {
  switches.broken = "dvs-1";
  AllUp();
  EXPECT_FALSE(record.healthy());
  EXPECT_EQ(switches.Status("dvs-2"), "up") << "the others are told all the same";
  EXPECT_EQ(record.resetZemaHealth(), -1);
  EXPECT_TRUE(log.Contains(
      "Failed to update health status [UpdateZemaHealth for DVS[dvs-1] failed: no such switch]"));
  switches.broken.clear();
  EXPECT_EQ(record.resetZemaHealth(), 0);
  EXPECT_TRUE(record.healthy());
}

TEST_F(HealthRecordTest, SecurityOnlyHostsCarryTheOverlayRecord) {
  switches.security_only = true;
  AllUp();
  const std::string& overlay = switches.properties["dvs-1"]["com.orlane.common.host.volatile.overlay.status"];
  ASSERT_EQ(overlay.size(), 260u);
  EXPECT_EQ(overlay[0], 0);
  EXPECT_STREQ(overlay.c_str() + 4, "zema up");
  record.setZemaStatusDown();
  EXPECT_EQ(overlay[0], 2);
  EXPECT_STREQ(overlay.c_str() + 4, "zema down");
  switches.security_only = false;
  record.setZemaStatusUp();
  EXPECT_EQ(switches.properties["dvs-1"].count("com.orlane.common.host.volatile.overlay.status"), 0u);
}

TEST_F(HealthRecordTest, ConnectedManagerWakesTheResync) {
  record.mpaConnected();
  EXPECT_TRUE(log.Contains("Resync Task not ready yet"));
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  record.setResyncFd(ends[1]);
  record.mpaConnected();
  char byte = 0;
  EXPECT_EQ(::read(ends[0], &byte, 1), 1);
  EXPECT_EQ(byte, 'r');
  ::close(ends[0]);
}

TEST(SmartNicHealthTest, NeedsNoHostSocket) {
  test::LogCapture log;
  Switches switches;
  HealthRecord record(switches, true);
  record.setZemaLumReady();
  record.mpaConnected();
  EXPECT_TRUE(record.checkZemaHealth());
}

}  // namespace
}  // namespace zem::zema
