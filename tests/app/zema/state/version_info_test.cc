#include "app/zema/state/version_info.h"

#include <gtest/gtest.h>

#include <map>

#include "tests/support/log_capture.h"

namespace zem::zema {
namespace {

// Each kind of host, and output that is none of them.
TEST(VersionInfoTest, Hosts) {
  using Distribution = VersionInfo::Distribution;
  struct Case {
    const char* uname;
    const char* lsb;
    int orlane;
    bool known;
    bool hypervisor;
    Distribution distribution;
    const char* text;
  };
  const std::string longest(50, 'x');
  for (const Case& each : {
           Case{"Hypercore 7.0.3\n", "", 0, true, true, Distribution::kNone, ""},
           Case{"Hypercore 7.0.3\n", "", 3, false, true, Distribution::kNone,
                "Failed to run 'orlane -l' with error code [3]"},
           Case{"Linux 6.1.0\n", "Ubuntu\n", 0, true, false, Distribution::kUbuntu, ""},
           Case{"Linux 6.1.0\n", "CentOS\n", 0, true, false, Distribution::kRedHat, ""},
           Case{"Linux 6.1.0\n", "openSUSE project\n", 0, true, false, Distribution::kSuse, ""},
           Case{"Linux 6.1.0\n", "Other\n", 0, true, false, Distribution::kNone, ""},
           Case{"Plan9 4\n", "", 0, false, false, Distribution::kNone, "unrecognized host type:[Plan9]"},
           Case{"Linux\n", "", 0, false, false, Distribution::kNone, "unrecognized uname output:[Linux]"},
           Case{longest.c_str(), "", 0, false, false, Distribution::kNone, "unrecognized uname output:[xxx"},
       }) {
    test::LogCapture log;
    VersionInfo info;
    const bool known = InitVersionInfo(
        [&each](const std::string& command, std::string* output) {
          if (command == "uname -s -r") *output = each.uname;
          if (command == "lsb_release -si") *output = each.lsb;
          if (command == "orlane -l") *output = "product";
          return command == "orlane -l" ? each.orlane : 0;
        },
        &info);
    EXPECT_EQ(known, each.known) << each.uname;
    EXPECT_EQ(info.hypervisor, each.hypervisor) << each.uname;
    EXPECT_EQ(info.distribution, each.distribution) << each.lsb;
    EXPECT_TRUE(log.Contains(each.text) || *each.text == '\0') << each.text;
  }
}

}  // namespace
}  // namespace zem::zema
