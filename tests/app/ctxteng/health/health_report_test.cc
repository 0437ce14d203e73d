#include "app/ctxteng/health/health_report.h"

#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include "app/ctxteng/base/vm_data.h"
#include "proto/context/ouvi.pb.h"
#include "tests/support/log_capture.h"

namespace Ctxt {
namespace {

using orlane::zem::context::HealthStatusMsg;

constexpr const char* kUnreadable =
    "status_code: 10\nerror_msg: \"Error in parsing health xml from zem-context-mux\"\n";

std::string Report(const std::string& events) {
  return "<PalisadeEndpointSecurity><MUXReport><MUXMOID>host-7</MUXMOID>"
         "<MUXCurrentTime>1700000000123</MUXCurrentTime>" +
         events + "</MUXReport></PalisadeEndpointSecurity>";
}

std::string Event(int kind, int type, const std::string& members) {
  return "<ObjectEvent><objectType>" + std::to_string(kind) + "</objectType><eventType>" +
         std::to_string(type) + "</eventType><eventTime>5</eventTime>" + members + "</ObjectEvent>";
}

std::string Parameters(const std::vector<std::string>& values) {
  std::string text;
  for (const std::string& value : values) text += "<eventParameter>" + value + "</eventParameter>";
  return text;
}

std::string Svm(const std::string& altitude, int type, const std::vector<std::string>& parameters) {
  return Event(1, type, "<altitude>" + altitude + "</altitude>" + Parameters(parameters));
}

std::string Vm(const std::string& id, const std::vector<std::string>& altitudes) {
  return Event(0, 1, "<vcUUID>" + id + "</vcUUID>" + Parameters(altitudes));
}

class HealthReportTest : public testing::Test {
 protected:
  HealthReportTest() {
    windows_guest->os.os_type = kWindows;
    windows_guest->gcf_path = "/vms/w.gcf";
    windows_guest->gi = {
        .driver_version = "1", .network_driver_version = "2", .tools_version = "3", .umc_version = "4"};
    windows_guest->gi_info_fetched = true;
    linux_guest->os.os_type = kLinux;
  }
  std::string Text(const std::string& xml) {
    std::string text;
    google::protobuf::TextFormat::PrintToString(
        BuildHealthReport(xml,
                          [this](const std::string& id) -> std::shared_ptr<const VmData> {
                            if (id == "w") return windows_guest;
                            return id == "l" ? linux_guest : nullptr;
                          }),
        &text);
    return text;
  }
  HealthStatusMsg Read(const std::string& xml) {
    HealthStatusMsg message;
    EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(Text(xml), &message));
    return message;
  }

  zem::test::LogCapture log;
  const std::shared_ptr<VmData> windows_guest = std::make_shared<VmData>();
  const std::shared_ptr<VmData> linux_guest = std::make_shared<VmData>();
};

TEST_F(HealthReportTest, EachKindOfObjectIsConverted) {
  const std::string text = Text(Report(Event(2, 3000, Parameters({"1.2", "7"})) + Svm("200", 2000, {"9.1"}) +
                                       Svm("300", 2001, {"9.2", "1.1"}) + Vm("w", {"300"})));
  EXPECT_EQ(text, R"(status_code: 0
timestamp: 1700000000123
health {
  object_type: 1
  event_type: 3000
  host_object {
    host_id: "host-7"
    mux_start_time: 5
    mux_version: "1.2"
    vfile_protocol_version: "7"
  }
}
health {
  object_type: 3
  event_type: 2000
  svm_object {
    altitude: "200"
    svm_version: "9.1"
    svm_connect_time: 5
    svm_index: 0
  }
}
health {
  object_type: 3
  event_type: 2001
  svm_object {
    altitude: "300"
    svm_version: "9.2"
    mux_incompatible_version: "1.1"
    svm_connect_time: 5
    svm_index: 1
  }
}
health {
  object_type: 2
  event_type: 1
  vm_object {
    external_id: "w"
    gcf_path: "/vms/w.gcf"
    vm_connect_time: 5
    connected_svm_mask: 2
    win_info {
      gi_info {
        file_driver_version: "1"
        nw_driver_version: "2"
        tools_version: "3"
        umc_version: "4"
      }
    }
  }
}
)");
}

// The mask names service VMs by their place in the report; a shifted index would accuse the wrong partner.
TEST_F(HealthReportTest, ServiceVmsAreNumberedAsTheyArrive) {
  std::string events = Svm("100", 2000, {"1"}) + Svm("200", 2000, {}) + Svm("300", 2002, {}) +
                       Svm("200", 2000, {"1"}) + Vm("none", {"300", "unknown"});
  for (int i = 2; i < 66; ++i) events += Svm("a" + std::to_string(i), 2002, {});
  events += Vm("none", {"a65"}) + Vm("none", {"100"});
  const HealthStatusMsg report = Read(Report(events));
  ASSERT_EQ(report.health_size(), 70);
  EXPECT_FALSE(report.health(0).svm_object().has_svm_index()) << "the host's own";
  EXPECT_EQ(report.health(1).svm_object().altitude(), "300") << "the entry without its version is dropped";
  EXPECT_EQ(report.health(1).svm_object().svm_index(), 1u) << "and has used its index";
  EXPECT_EQ(report.health(2).svm_object().svm_index(), 0u);
  EXPECT_EQ(report.health(3).vm_object().connected_svm_mask(), 3u) << "an unknown altitude counts as index 0";
  EXPECT_EQ(report.health(68).vm_object().connected_svm_mask(), 2u) << "index 65";
  EXPECT_EQ(report.health(69).vm_object().connected_svm_mask(), 1u);
  EXPECT_TRUE(log.Contains("errorCode=\"CTX302\""));
}

TEST_F(HealthReportTest, EntriesThatBreakTheirEventsRuleAreDropped) {
  const HealthStatusMsg report = Read(
      Report(Svm("1", 2000, {"a", "b"}) + Svm("2", 2001, {"a"}) + Svm("3", 2002, {"a"}) + Svm("4", 2003, {}) +
             Event(2, 3001, "") + Event(2, 3000, Parameters({"a"})) + Event(3, 1, "") + Event(-1, 1, "")));
  EXPECT_EQ(report.status_code(), 0u);
  EXPECT_EQ(report.health_size(), 0);
  for (const char* line : {"params 2 for event SVM_CONNECTED", "params 1 for event SVM_VERSION_MISMATCH",
                           "params 1 for event SVM_CONNECTION_FAILED", "event type: 2003 for object SVM",
                           "event type 3001 for object HOST", "params 1 for event MUX_ENABLED"}) {
    EXPECT_TRUE(log.Contains(line)) << line;
  }
}

TEST_F(HealthReportTest, TheDistributionIsRecognisedInItsIdOrDescription) {
  const struct {
    const char* id;
    const char* description;
    const char* expected;
  } cases[] = {{"ubuntu", "", "ubuntu"},
               {"x", "a suse or rhel", "rhel"},
               {"sles", "suse-like", "suse"},
               {"centos-stream", "", "centos"},
               {"arch", "rolling", "arch"}};
  for (const auto& each : cases) {
    linux_guest->os.distribution_id = each.id;
    linux_guest->os.distribution_description = each.description;
    EXPECT_EQ(Read(Report(Vm("l", {}))).health(0).vm_object().lin_info().dist_id(), each.expected);
  }
}

TEST_F(HealthReportTest, ATextThatCannotBeReadSaysSo) {
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "<a>";
  // What makes a tag look closed, or closes one that is none.
  std::string hidden_by_values;
  for (int i = 0; i < 100000; ++i) hidden_by_values += "<a b='/>'>";
  std::string closers;
  for (int i = 0; i < 100000; ++i) closers += "</a>";
  const std::string bad[] = {
      "",
      "<a",
      "<a></b>",
      deep,
      hidden_by_values,
      "<!--" + closers + "-->" + deep,
      "<a><![CDATA[" + closers + "]]>" + deep,
      "<!DOCTYPE " + closers + ">" + deep,
      "<a b=\"" + closers + "\">" + deep,
      "<a>" + std::string(size_t{5} * 1024 * 1024, 'x') + "</a>",
      "<PalisadeEndpointSecurity/>",
      Report("<ObjectEvent><objectType>1</objectType></ObjectEvent>"),
      Report(Event(0, 1, "")),
      Report("<ObjectEvent><objectType>x</objectType></ObjectEvent>"),
      "<PalisadeEndpointSecurity><MUXReport><MUXMOID>h</MUXMOID><MUXCurrentTime>2026-01-01"
      "</MUXCurrentTime></MUXReport></PalisadeEndpointSecurity>"};
  for (const std::string& xml : bad) EXPECT_EQ(Text(xml), kUnreadable) << xml.substr(0, 100);
}

}  // namespace
}  // namespace Ctxt
