#include "app/ctxteng/flow/context_report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "app/ctxteng/flow/ip_address.h"
#include "proto/context/pace.pb.h"
#include "tests/support/log_capture.h"

namespace Ctxt::PaceClient {
namespace {

namespace pace = orlane::zem::pace;

std::string Id(uint32_t number) {
  char text[37];
  std::snprintf(text, sizeof(text), "00000000-0000-0000-0000-%012u", number);
  return text;
}

// A guest with processes of the same size, whose command lines have `line` bytes.
VmInfo Guest(int processes, size_t line) {
  VmInfo guest;
  for (int i = 0; i < processes; ++i) {
    auto connection = std::make_shared<ConnInfo>();
    connection->process_name = "p" + std::to_string(i);
    connection->cmdline.assign(line, 'c');
    connection->dest_ip = "10.0.0.1";
    const std::string key = std::to_string(i);
    const auto process = guest.processes.try_emplace(key, ProcessInfo{1, 2, connection}).first;
    guest.service_events.push_back({LISTEN_START, &process->first, connection});
  }
  return guest;
}

std::vector<pace::PaceContextInfoMsg> Messages(const VmMap& guests, SiteId::Halves site = {1, 2}) {
  static ReportBuilder builder;  // what is left of one report must not show in the next
  std::vector<pace::PaceContextInfoMsg> messages;
  builder.Build(guests, site, [&](const pace::PaceContextInfoMsg& msg) { messages.push_back(msg); });
  return messages;
}

// A message of more than the library takes loses a whole interval.
TEST(ReportTest, ALargeReportIsCutIntoMessagesThatTogetherHaveEverything) {
  struct Case {
    const char* what;
    int guests;
    int processes;
    size_t line;
    size_t messages;
  };
  const Case cases[] = {{"fits", 4, 10, 1000, 1},
                        {"many guests", 30, 50, 1500, 3},
                        {"one large guest", 1, 200, 10000, 3},
                        {"large guests side by side", 3, 100, 12000, 4},
                        {"one element above all limits", 1, 2, 1000000, 2}};
  const zem::test::LogCapture log;
  for (const Case& c : cases) {
    VmMap guests;
    for (int i = 1; i <= c.guests; ++i) guests[Id(static_cast<uint32_t>(i))] = Guest(c.processes, c.line);
    std::set<std::pair<uint64_t, std::string>> processes;
    int services = 0;
    const auto messages = Messages(guests);
    EXPECT_GE(messages.size(), c.messages) << c.what;
    EXPECT_LE(messages.size(), 2 * c.messages) << c.what;
    for (const auto& message : messages) {
      if (c.line < kMostReportBytes) {
        EXPECT_LT(message.ByteSizeLong(), kMostReportBytes) << c.what;
      }
      EXPECT_EQ(message.site_id().second(), 2U) << c.what;
      for (const auto& entry : message.guest_info().vm_map_entry()) {
        services += entry.vm_info().service_event_size();
        for (const auto& process : entry.vm_info().process_entry()) {
          EXPECT_TRUE(processes.emplace(entry.vm_vc_uuid().second(), process.key()).second) << c.what;
        }
      }
    }
    EXPECT_EQ(processes.size(), static_cast<size_t>(c.guests * c.processes)) << c.what;
    EXPECT_EQ(services, c.guests * c.processes) << c.what;
  }
}

TEST(ReportTest, AGuestWithoutAUuidDoesNotHideTheOthers) {
  const zem::test::LogCapture log;
  VmMap guests;
  guests["zzzzzzzz-0000-0000-0000-000000000001"] = Guest(1, 1);
  guests[Id(2)] = Guest(1, 1);
  auto messages = Messages(guests);
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_EQ(messages[0].guest_info().vm_map_entry_size(), 1);
  EXPECT_TRUE(log.Contains("Zemi: The guest zzzzzzzz-0000-0000-0000-000000000001 is left out"));
  messages = Messages({}, {});
  ASSERT_EQ(messages.size(), 1U) << "nothing happened is a report, too";
  EXPECT_FALSE(messages[0].has_site_id());
  EXPECT_TRUE(log.Contains("errorCode=\"CTX735\""));
}

TEST(ReportTest, AddressesAreInNetworkOrder) {
  struct Case {
    const char* text;
    const char* v4;
    const char* v6;
    const char* line;
  };
  const Case cases[] = {{"10.1.2.3", "0a010203", "", nullptr},
                        {"::1", "", "00000000000000000000000000000001", nullptr},
                        {"fe80::2%eth0", "", "fe800000000000000000000000000002", nullptr},
                        {"", "", "", "Zemi: Ignoring zero length Ip address"},
                        {"10.1.2", "", "", "Zemi: boost ip from str failed: 10.1.2, error "},
                        {"guest", "", "", "Zemi: boost ip from str failed: guest, error "}};
  const auto hex = [](const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) {
      char digits[3];
      std::snprintf(digits, sizeof(digits), "%02x", static_cast<uint8_t>(byte));
      text += digits;
    }
    return text;
  };
  for (const Case& c : cases) {
    const zem::test::LogCapture log;
    pace::IpAddressMsg address;
    EXPECT_EQ(FillIpAddress(c.text, &address), c.line == nullptr) << c.text;
    std::string v4;
    if (address.has_ipv4()) {
      const uint32_t bytes = address.ipv4();
      v4.assign(reinterpret_cast<const char*>(&bytes), sizeof(bytes));
    }
    EXPECT_EQ(hex(v4), c.v4) << c.text;
    EXPECT_EQ(hex(address.ipv6()), c.v6) << c.text;
    if (c.line != nullptr) {
      EXPECT_TRUE(log.Contains(c.line)) << c.text;
    }
  }
}

}  // namespace
}  // namespace Ctxt::PaceClient
