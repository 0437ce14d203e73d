#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/ctxteng/idsrecord/event_info.h"
#include "app/ctxteng/idsrecord/event_reader.h"
#include "app/ctxteng/idsrecord/event_time.h"
#include "app/ctxteng/idsrecord/ip_address.h"
#include "app/ctxteng/idsrecord/json_line.h"
#include "app/ctxteng/idsrecord/tenant_line.h"
#include "app/ctxteng/idsrecord/url_parts.h"
#include "platform/core/virtual_clock.h"
#include "proto/context/ids.pb.h"
#include "tests/app/ctxteng/idsevents/alert_text.h"
#include "tests/support/log_capture.h"

namespace IdsEvtEng {
namespace {

using orlane::zem::context::ids::EventInfo;
using testing::ElementsAre;

class RecordTest : public ::testing::Test {
 protected:
  std::unique_ptr<IdsEvent> Read(const std::string& text) {
    if (ReadEventType(text, &line) != kAlertEvent) return nullptr;
    return ReadAlert(line);
  }
  EventInfo Info(const std::string& text) {
    EventInfo info;
    BuildEventInfo(*Read(text), lookups, &info);
    return info;
  }

  zem::VirtualClock clock;
  zem::test::LogCapture log;
  JsonLine line;
  EventLookups lookups{[](uint32_t hash) -> std::optional<std::string> {
                         if (hash == 77) return "alice";
                         return std::nullopt;
                       },
                       [](uint32_t rule, orlane::zem::TenantContextMsg* tenant) {
                         if (rule == 3001) tenant->set_org("o");
                         return rule == 3001;
                       }};
};

TEST_F(RecordTest, EveryMemberReachesTheManager) {
  const EventInfo info = Info(kAlert);
  EXPECT_EQ(info.ShortDebugString(),
            "signature_id: 2024217 signature: \"SMB \\\"probe\\\" \\303\\274\" src_ip { ipv4: 167838211 } "
            "dest_ip { ipv4: 3232237321 } src_port: 51234 dest_port: 445 flow_match: true flow_dir: true "
            "proto: \"TCP\" app_proto: \"smb\" session_dir: 2 event_dir: 1 timestamp: 1704164645 severity: 1 "
            "count: 1 vm_uuid: \"vm-1\" rule_id: 3001 user_name: \"alice\" vnic_id: 4000 lsp_uuid: \"lsp-1\" "
            "bytes_to_server: 480 bytes_to_client: 1200 profile_id: \"p-1\" action: 0 tenant_context { org: "
            "\"o\" } pcap_id { first: 18446744073709551557 second: 1704164645123456 }");
  EXPECT_FALSE(log.Contains("errorCode"));
}

TEST_F(RecordTest, MetadataOfAlertIsForKafkaAlone) {
  const auto event = Read(kAlert);
  EventInfo info;
  AddMetadata(*event, &info);
  std::vector<std::string> pairs;
  for (const auto& pair : info.event_metadata()) pairs.push_back(pair.name() + "=" + pair.value());
  EXPECT_THAT(pairs, ElementsAre("http_hostname=files.example", "http_port=8080", "url_scheme=http",
                                 "url_host=files.example", "url_port=8080", "url_path=/a?b=c",
                                 "detector_id=17", "ids_mode=detect_prevent"));
}

// The target decides which side is the destination, and with it the ports and whether the flow runs the
// attack's way.
TEST_F(RecordTest, EndpointsFollowTheTarget) {
  struct Case {
    const char* target;
    const char* flow_source;
    uint32_t source_port;
    bool flow_match;
  };
  for (const Case& c :
       {Case{"192.168.7.9", "10.1.2.3", 51234, true}, Case{"192.168.7.9", "192.168.7.9", 51234, false},
        Case{"10.1.2.3", "10.1.2.3", 445, false}, Case{"10.1.2.3", "192.168.7.9", 445, true},
        Case{"", "10.1.2.3", 51234, true}}) {
    SCOPED_TRACE(std::string(c.target) + " " + c.flow_source);
    std::string text = With(kAlert, R"("ip":"192.168.7.9")", R"("ip":")" + std::string(c.target) + '"');
    const bool turned = std::string(c.flow_source) != "10.1.2.3";
    if (turned) {
      text = With(text, R"("flow_src_ip":"10.1.2.3")", R"("flow_src_ip":"192.168.7.9")");
      text = With(text, R"("flow_dest_ip":"192.168.7.9")", R"("flow_dest_ip":"10.1.2.3")");
    }
    const EventInfo info = Info(text);
    EXPECT_EQ(info.src_port(), c.source_port);
    EXPECT_EQ(info.dest_port(), 445U + 51234U - c.source_port);
    EXPECT_EQ(info.src_ip().ipv4() == 167838211, c.source_port == 51234);
    EXPECT_EQ(info.flow_match(), c.flow_match);
  }
}

TEST_F(RecordTest, LeanAlertHasTheTablesDefaultsAndSaysWhatIsMissingOnce) {
  const std::string lean = R"({"event_type":"alert","src_port":-1,"dest_ip":null,"alert":{"action":"pass"}})";
  const auto event = Read(lean);
  EXPECT_EQ(LogText(*event), "src::4294967295,dest::4294967295,prot:,sig:4294967295,sev:-1,vmId:,");
  EXPECT_EQ(event->action, kActionNotSet);
  EXPECT_EQ(event->flow_match, kSourceMatches) << "two empty addresses are equal";
  EventInfo info;
  BuildEventInfo(*event, lookups, &info);
  EXPECT_EQ(
      info.ShortDebugString(),
      "proto: \"\" app_proto: \"\" timestamp: 0 count: 1 vm_uuid: \"\" lsp_uuid: \"\" profile_id: \"\"");
  for (const char* text :
       {"Exception while retrieving src IP from JSON, no such member (src_ip)",
        "Exception while retrieving signature id from JSON, no such member (alert.signature_id)",
        "Exception while retrieving src port from JSON, wrong value of src_port (-1)",
        "Invalid flow dir received: 0", "Invalid effective flow action received: pass",
        "Exception while converting time to epoch, "}) {
    EXPECT_TRUE(log.Contains(text)) << text;
  }
  EXPECT_EQ(log.Count("retrieving src IP"), 2U) << "one line with each tag";
  for (int i = 0; i < 5; ++i) Read(lean);
  EXPECT_EQ(log.Count("retrieving src IP"), 2U);
  clock.RunFor(std::chrono::seconds(10));
  Read(lean);
  EXPECT_EQ(log.Count("retrieving src IP"), 4U);
  EXPECT_TRUE(log.Contains("5 lines like the next one were left out"));
  Read(With(kAlert, R"("src_ip":"10.1.2.3")", R"("src_ip":"10.9.9.9")"));
  EXPECT_TRUE(
      log.Contains("Invalid IP addresses received, attack src: 10.9.9.9, dest : 192.168.7.9, flow "
                   "src: 10.1.2.3, dest: 192.168.7.9"));
}

TEST_F(RecordTest, WhatIsNoAnnouncementIsTold) {
  struct Case {
    const char* text;
    const char* line;
  };
  for (const Case& c : {
           Case{"", "Empty parse string"},
           Case{"{\"event_type\":\"alert\"",
                "ConvertJsonGetEventType: Exception while parsing JSON string, "},
           Case{"{}", "Exception while retrieving event type from JSON, no such member (event_type)"},
           Case{"[1]", "Exception while retrieving event type from JSON"},
           Case{R"({"a":"\x"})", "a wrong escape"},
           Case{R"({"a":"\u12g4"})", "a wrong escape"},
           Case{R"({"event_type":"alert"} x)", "text behind the value"},
           Case{R"({"a":01})", "no value"},
           Case{R"({"a":1,})", "a member's name is missing"},
           Case{"{\"a\":\"b\nc\"}", "a control character"},
       }) {
    SCOPED_TRACE(c.text);
    log.Clear();
    clock.RunFor(std::chrono::seconds(10));
    EXPECT_EQ(ReadEventType(c.text, &line), kOtherEvent);
    EXPECT_TRUE(log.Contains(c.line)) << testing::PrintToString(log.Texts());
  }
  EXPECT_EQ(ReadEventType(R"({"event_type":"stats"})", &line), kOtherEvent);
  EXPECT_EQ(ReadEventType(kNotice, &line), kFlowSnipEvent);
  // Nesting ends before the stack does.
  const std::string deep = "{\"event_type\":\"alert\",\"a\":" + std::string(100000, '[');
  EXPECT_EQ(ReadEventType(deep, &line), kOtherEvent);
}

TEST_F(RecordTest, NoticeIsReadFromItsOwnMembers) {
  ASSERT_EQ(ReadEventType(kNotice, &line), kFlowSnipEvent);
  const auto notice = ReadCapture(line);
  EXPECT_EQ(notice->flow_id, 5U);
  EXPECT_EQ(notice->snip_ts_us, 9U) << "not the alert's member of that name";
  EXPECT_EQ(notice->severity, -1);
  EXPECT_EQ(notice->flow_dir, 2U);
  EXPECT_FALSE(log.Contains("errorCode")) << "what only alerts have is not missed";
}

TEST(JsonLineTest, TextsComeWithoutEscapes) {
  const std::string text =
      R"( { "proto" : "\ud83d\ude00\u20ac\/\\\"\n\ud800x" , "src_\u0069p":"a", "src_ip":"b" } )";
  JsonLine line;
  ASSERT_TRUE(line.Parse(text)) << line.error();
  EXPECT_EQ(line.Text(Member::kProto), "\xF0\x9F\x98\x80\xE2\x82\xAC/\\\"\n\xEF\xBF\xBDx");
  EXPECT_EQ(line.Text(Member::kSrcIp), "a") << "the first of two members counts";
}

TEST(EventTimeTest, KnownForms) {
  zem::test::LogCapture log;
  for (const auto& [text, seconds] : std::map<std::string, uint32_t>{
           {"2024-01-02T03:04:05.123456+0000", 1704164645},
           {"2024-01-02 03:04:05", 1704164645},
           {"2024/01/02 03:04:05", 1704164645},
           {"02.01.2024 03:04:05", 1704164645},
           {"2024-02-29 23:59:59", 1709251199},
           {"2106-02-07 06:28:17", 1},  // in 32 bits
       }) {
    EXPECT_EQ(EpochSeconds(text), seconds) << text;
  }
  EXPECT_FALSE(log.Contains("errorCode"));
  for (const char* text : {"", "yesterday", "2024-13-01 00:00:00"}) EXPECT_EQ(EpochSeconds(text), 0U) << text;
  EXPECT_TRUE(log.Contains("errorCode=\"CTX730\""));
}

TEST(UrlPartsTest, Cuts) {
  struct Case {
    const char* url;
    UrlParts parts;
  };
  for (const Case& c :
       {Case{"HTTPS://u:p@Host.x:81/a/b?c=d#e", {"https", "Host.x", "81", "/a/b?c=d#e"}},
        Case{"host", {"", "host", "", "/"}}, Case{"/only/path", {"", "", "", "/only/path"}},
        Case{"http://h:x/", {"http", "h", "", "/"}}, Case{"http://h:99999/", {"http", "h", "", "/"}},
        Case{"ftp://a@b@[::1]:21", {"ftp", "[::1]", "21", "/"}},
        Case{"http://[2001:db8::1]/x", {"http", "[2001:db8::1]", "", "/x"}}, Case{"", {"", "", "", "/"}},
        Case{"://", {"", "", "", "/"}}}) {
    const UrlParts parts = SplitUrl(c.url);
    EXPECT_THAT((std::vector{parts.scheme, parts.host, parts.port, parts.path}),
                ElementsAre(c.parts.scheme, c.parts.host, c.parts.port, c.parts.path))
        << c.url;
  }
}

TEST(IpAddressTest, BothFamiliesAndNeither) {
  zem::VirtualClock clock;
  zem::test::LogCapture log;
  clock.RunFor(std::chrono::hours(1));
  orlane::zem::IpAddressMsg address;
  EncodeAddress("1.2.3.4", &address);
  EXPECT_EQ(address.ipv4(), 0x01020304U);
  address.Clear();
  EncodeAddress("2001:db8::1", &address);
  EXPECT_EQ(address.ipv6(), std::string("\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x01", 16));
  address.Clear();
  EncodeAddress("1.2.3.999", &address);
  EXPECT_TRUE(address.has_ipv4() && address.ipv4() == 0);
  EncodeAddress("", &address);
  EXPECT_TRUE(log.Contains("Failure to convert ipv4 1.2.3.999 address from string"));
  EXPECT_TRUE(log.Contains("IP address for encoding is of length 0"));
}

// The rest of the line stays byte by byte: a reader must see the numbers that the detection process wrote.
TEST(TenantLineTest, OnlyTheTenantIsAdded) {
  zem::test::LogCapture log;
  const auto tenant_of = [](uint32_t rule) -> std::string {
    if (rule == 13) throw std::runtime_error("no map");
    return rule == 12 ? "[org=\"o\" proj=\"p\"]: " : "";
  };
  const std::string escaped = R"("zem_tenancy":"[org=\"o\" proj=\"p\"]: ")";
  const std::string line = R"({"a":1.50,"b":true,"zem_metadata":{"rule_id":12}} )";
  EXPECT_EQ(AddTenant(line, tenant_of),
            R"({"a":1.50,"b":true,"zem_metadata":{"rule_id":12},)" + escaped + "} ");
  EXPECT_EQ(AddTenant(R"({"zem_tenancy":["x"],"zem_metadata":{"rule_id":"12"}})", tenant_of),
            "{" + escaped + R"(,"zem_metadata":{"rule_id":"12"}})");
  for (const char* unchanged : {R"({"zem_metadata":{"rule_id":5}})", R"({"zem_metadata":{}})", "{\"a\"", "",
                                R"({"zem_metadata":{"rule_id":13}})"}) {
    EXPECT_EQ(AddTenant(unchanged, tenant_of), unchanged);
  }
  for (const char* text :
       {"Tenant context unavailable for rule id: 5", "as there's no rule ID in event",
        "Exception while parsing JSON string, ", "Exception while adding tenancy to JSON string, no map"}) {
    EXPECT_TRUE(log.Contains(text)) << text;
  }
}

}  // namespace
}  // namespace IdsEvtEng
