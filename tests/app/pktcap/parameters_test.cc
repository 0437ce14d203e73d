#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/pktcap/exporter/capture_parameters.h"
#include "app/pktcap/service/capture_points.h"
#include "app/pktcap/service/session_status.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace zem::Tarvik {
namespace {

using ::testing::ElementsAre;

class ParametersTest : public ::testing::Test {
 protected:
  ParametersTest() {
    // Knows a port of each kind, "vm1" as a vNIC, and 77 as a vNIC's name that looks like a port.
    dir_.Write("find",
               "echo \"$@\" >> " + dir_.Path("asked") +
                   "\ncase \"$1 $2\" in '--vnic vm1') echo 12 ks-1;; '--vnic 77') echo 13;; "
                   "'--switchport 12') echo 12;; '--vdrport r1') echo 14 ks-1;; '--knl knl0') echo 1;; "
                   "'--uplink vmnic0') echo 2;; '--dvsport lp-1') echo 15 ks-1;; '--fcport f1') echo 3;; "
                   "'--knl broken') printf '1\\001';; "
                   "*) exit 1;; esac\n");
    host_.tools.python = "/bin/sh";
    host_.tools.find_port = dir_.Path("find");
  }

  std::vector<std::string> ArgumentsOf(std::initializer_list<std::pair<const char*, const char*>> values) {
    CaptureParameters parameters(host_);
    for (const auto& [name, value] : values) EXPECT_EQ(parameters.Set(name, value, nullptr), 0) << name;
    return parameters.CaptureArguments(nullptr);
  }

  test::LogCapture log_;
  test::TempDir dir_;
  CaptureParameters::Host host_;
};

TEST_F(ParametersTest, ChecksEachValueWithItsOwnError) {
  struct Case {
    const char* name;
    const char* value;
    int error;
  };
  CaptureParameters parameters(host_);
  for (const Case& c :
       {Case{"vnic", "vm1", 0}, {"vnic", "vm2", 3},    {"vnic", "12", 0},     {"vnic", "77", 0},
        {"vnic", "78", 3},      {"knlnic", "knl0", 0}, {"knlnic", "knl1", 4}, {"hwnic", "vmnic0", 0},
        {"hwnic", "x", 5},      {"vdrport", "r1", 0},  {"vdrport", "r2", 6},  {"dvfilter", "anything", 0},
        {"lport", "lp-1", 0},   {"lport", "lp-2", 8},  {"fcport", "f1", 0},   {"fcport", "f2", 9},
        {"pnic", "eth0", 1},    {"ifname", "lo", 1},   {"core", "1", 1},      {"dir", "input", 0},
        {"dir", "in", 25},      {"dir", "dual", 0},    {"vlan", "x", 0},      {"", "", 1}}) {
    EXPECT_EQ(parameters.Set(c.name, c.value, nullptr), c.error) << c.name << " " << c.value;
  }
  EXPECT_EQ(parameters.Set("knlnic", "broken", nullptr), 4) << "no port is named so";
  host_.is_version_65 = true;
  EXPECT_EQ(CaptureParameters(host_).Set("dir", "dual", nullptr), 25);
  host_.node_kind = 4;
  CaptureParameters edge(host_);
  EXPECT_EQ(edge.Set("vnic", "vm1", nullptr), 1);
  EXPECT_EQ(edge.Set("pnic", "fp0", nullptr), 10);
  EXPECT_EQ(edge.Set("ifname", "lo", nullptr), 0);
  EXPECT_EQ(edge.Set("ifname", "a-name-of-no-interface", nullptr), 11);
  EXPECT_EQ(edge.Set("vni", "5", nullptr), 1);
}

TEST_F(ParametersTest, ArgumentsOfTheCaptureTool) {
  EXPECT_THAT(ArgumentsOf({{"dir", "output"}, {"vnic", "vm1"}, {"stage", "post"}}),
              ElementsAre("-e", "--switchport", "12", "--stage", "1", "--dir", "1"));
  EXPECT_THAT(ArgumentsOf({{"hwnic", "vmnic0"}}), ElementsAre("-e", "-K", "--uplink", "vmnic0"));
  EXPECT_THAT(ArgumentsOf({{"lport", "lp-1"}, {"ip", "10.0.0.1"}}), ElementsAre("-e", "--switchport", "15"));
  EXPECT_THAT(ArgumentsOf({{"dvfilter", "nic-1"}, {"dvfilter", "nic-2"}}),
              ElementsAre("-e", "--dvfilter", "nic-2"));
  // The port may go between the check and the start.
  CaptureParameters parameters(host_);
  ASSERT_EQ(parameters.Set("vnic", "vm1", nullptr), 0);
  dir_.Write("find", "exit 1\n");
  EXPECT_THAT(parameters.CaptureArguments(nullptr), ElementsAre("-e", "--switchport", "notfound"));
  host_.is_version_65 = true;
  EXPECT_THAT(ArgumentsOf({{"dvfilter", "n"}}), ElementsAre("--dvfilter", "n"));
}

// The order is the table's and not that of the calls: an expression with the VLAN behind an address matches
// nothing.
TEST_F(ParametersTest, FilterStandsInItsOwnOrder) {
  CaptureParameters parameters(host_);
  for (const auto& [name, value] :
       std::initializer_list<std::pair<const char*, const char*>>{{"vni", "5"},
                                                                  {"srcport", "80"},
                                                                  {"ip", "10.0.0.1"},
                                                                  {"vlan", "7"},
                                                                  {"passthrough", "arp or udp"}}) {
    EXPECT_EQ(parameters.Set(name, value, nullptr), 0);
  }
  EXPECT_THAT(parameters.FilterArguments(),
              ElementsAre("arp or udp", "and", "vlan", "7", "and", "ip", "host", "10.0.0.1", "and", "tcp",
                          "src", "port", "80", "and", "geneve", "vni", "5"));
  EXPECT_EQ(parameters.vni(), 5u);
  EXPECT_TRUE(parameters.incoming());
  EXPECT_EQ(parameters.Set("dir", "output", nullptr), 0);
  EXPECT_FALSE(parameters.incoming());
}

// A look-up that hangs ends with the stop, and with it its script.
TEST_F(ParametersTest, AStopEndsALookUp) {
  dir_.Write("find", "sleep 1000\n");
  const std::atomic<bool> stop{true};
  CaptureParameters parameters(host_);
  EXPECT_EQ(parameters.Set("vnic", "vm1", &stop), 3);
}

TEST(SessionErrorTest, WordsOfOperatorsAndManagersNumbers) {
  for (const auto& [word, type] : std::initializer_list<std::pair<const char*, uint32_t>>{
           {"vnic", 1}, {"knl", 2}, {"uplink", 3}, {"logicalport", 6}, {"fcport", 8}, {"else", 7}}) {
    EXPECT_EQ(CapturePointType(word), type) << word;
  }
  EXPECT_EQ(FindCapturePoint(7), nullptr);
  EXPECT_STREQ(SessionErrorText(static_cast<SessionError>(26)), "general error") << "a number that is none";
}

}  // namespace
}  // namespace zem::Tarvik
