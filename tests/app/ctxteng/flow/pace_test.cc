#include "app/ctxteng/flow/pace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/ctxteng/guest/guest_table.h"
#include "platform/core/thread.h"
#include "platform/core/uuid.h"
#include "platform/core/virtual_clock.h"
#include "platform/upm/upm_service.h"
#include "proto/context/agent_config.pb.h"
#include "proto/context/pace.pb.h"
#include "tests/support/log_capture.h"

namespace Ctxt::PaceClient {
namespace {

namespace pace = orlane::zem::pace;
using orlane::zem::context::ContextHostConfigMsg;
using std::chrono::milliseconds;
using std::chrono::minutes;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using zem::upm::Profile;

// The profile service's side of a registration: the test says what the service would.
class Profiles final : public zem::upm::UPMService {
 public:
  Profiles() : UPMService(nullptr) {}
  void Register(uint32_t, std::vector<uint32_t>, zem::upm::ProfileCallback callback) override {
    tell = std::move(callback);
  }
  zem::upm::ProfileCallback tell;
};

// Keeps what would go to Kafka.
class RecordedPace final : public Pace {
 public:
  using Pace::Pace;
  void SendContextInfo(const pace::PaceContextInfoMsg& msg) override {
    reports.push_back(msg);
    Pace::SendContextInfo(msg);
    if (const auto then = std::exchange(after_next_report, nullptr)) then();
  }
  std::vector<pace::PaceContextInfoMsg> reports;
  std::function<void()> after_next_report;
};

class PaceTest : public testing::Test {
 protected:
  void Start(uint32_t vm_queue = 1000) {
    CtxtClientParam param;
    param.vmEventQueueSize = vm_queue;
    client->RegisterUpmMonitor(profiles);
    client->Initialize(param, nullptr);
  }
  ~PaceTest() override { client->Shutdown(); }

  std::shared_ptr<VmData> Add(int number, uint32_t os_type = kWindows) {
    auto vm = std::make_shared<VmData>();
    vm->vc_uuid = "00000000-0000-0000-0000-" + std::string(12 - std::to_string(number).size(), '0') +
                  std::to_string(number);
    vm->bios_uuid = vm->vc_uuid;
    vm->gcf_path = "/vm/" + std::to_string(number);
    vm->os.os_type = os_type;
    vm->os.build_number = "17763";
    guests.Add(vm);
    return vm;
  }
  static Profile HostConfig(bool enabled, std::optional<uint32_t> interval = 1,
                            const std::string& topic = "guests") {
    ContextHostConfigMsg config;
    config.set_enabled_collection(enabled);
    if (interval) config.set_collection_interval(*interval);
    config.add_topic()->set_type(2);
    config.mutable_topic(0)->set_name(topic);
    return {8, "", config.SerializeAsString()};
  }
  static Profile Site(const std::string& site) {
    orlane::zem::context::MetricsMuxUaProfileProtoMsg mux;
    mux.set_site_id(site);
    return {17, "", mux.SerializeAsString()};
  }
  static Profile Agent() {
    orlane::zem::context::CommonAgentHostConfigMsg agent;
    agent.add_end_point("127.0.0.1:1");
    zem::SetUuid(*zem::ParseUuid("00000000-0000-0005-0000-000000000006"), agent.mutable_site_id());
    return {15, "", agent.SerializeAsString()};
  }
  void Tell(std::vector<Profile> now, std::vector<Profile> before = {}) {
    profiles->tell({{2, "node", std::move(now), std::move(before)}}, false);
    clock.RunFor(milliseconds(1));
  }
  uint64_t Mask(const VmData& vm) { return vm.zemi_event_mask.mask; }

  static std::shared_ptr<ConnInfo> Connection(const VmData& vm, uint32_t type = CONN_TYPE_LISTEN_START) {
    auto connection = std::make_shared<ConnInfo>();
    connection->vc_uuid = vm.vc_uuid;
    connection->conn_type = type;
    connection->protocol = 6;
    connection->dest_ip = "10.0.0.1";
    connection->dest_port = 443;
    connection->process_name = "web.exe";
    connection->process_dfw_key = 12;
    connection->sid = "S-1-5";
    connection->uid = -1;
    connection->user_dfw_key = "S-1-5";
    connection->username = "ann";
    connection->pid = 100;
    return connection;
  }
  static std::shared_ptr<UserSessionInfo> Session(const VmData& vm, uint32_t type,
                                                  const std::string& sid = "S-1-5") {
    auto session = std::make_shared<UserSessionInfo>();
    session->vc_uuid = vm.vc_uuid;
    session->session_type = type;
    session->sid = sid;
    session->dfw_key = sid;
    session->user_name = "ann";
    return session;
  }
  std::vector<pace::PaceContextInfoMsg> Reports() {
    // The aggregator's thread writes them, while the clock runs.
    return std::exchange(client->reports, {});
  }
  // The guest of the only entry of the only report.
  pace::VmInfoMsg OnlyGuest() {
    const auto reports = Reports();
    EXPECT_EQ(reports.size(), 1U);
    if (reports.size() != 1) return {};
    EXPECT_EQ(reports[0].guest_info().vm_map_entry_size(), 1);
    if (reports[0].guest_info().vm_map_entry_size() != 1) return {};
    return reports[0].guest_info().vm_map_entry(0).vm_info();
  }

  zem::VirtualClock clock;
  zem::test::LogCapture log{zem::kLogDebug};
  GuestTable guests;
  KafkaDeliveries deliveries;
  const std::shared_ptr<Profiles> profiles = std::make_shared<Profiles>();
  const std::shared_ptr<RecordedPace> client = std::make_shared<RecordedPace>(guests, nullptr, deliveries);
};

TEST_F(PaceTest, TheFirstReportDescribesEveryGuestThatRan) {
  const auto first = Add(1);
  Add(2, kLinux);
  // Before the client is initialized, as a fast profile service does.
  client->RegisterUpmMonitor(profiles);
  Tell({HostConfig(true, std::nullopt), Site("00000000-0000-0007-0000-000000000008")});
  EXPECT_EQ(Mask(*first), 0U);
  client->Initialize({}, nullptr);
  clock.RunFor(milliseconds(1));
  EXPECT_EQ(Mask(*first), 0xE8EU);
  const auto third = Add(3);
  client->VmPowerOnEventHandler(third);
  EXPECT_EQ(Mask(*third), 0xE8EU);
  clock.RunFor(minutes(4));
  EXPECT_THAT(Reports(), IsEmpty());
  clock.RunFor(minutes(1));
  const auto reports = Reports();
  ASSERT_EQ(reports.size(), 1U);
  EXPECT_EQ(reports[0].site_id().first(), 7U);
  ASSERT_EQ(reports[0].guest_info().vm_map_entry_size(), 3);
  for (const auto& entry : reports[0].guest_info().vm_map_entry()) {
    ASSERT_EQ(entry.vm_info().vm_event_size(), 1);
    const auto& event = entry.vm_info().vm_event(0);
    EXPECT_EQ(event.event_type(), POWER_ON);
    EXPECT_EQ(event.vm_bios_uuid().second(), entry.vm_vc_uuid().second());
    EXPECT_EQ(event.os_info().has_lin_info(), entry.vm_vc_uuid().second() == 2);
  }
  EXPECT_TRUE(log.Contains("Stats dump: <vmEvents: 3, connEvents: 0, vmPowerOnEvents: 3, "));
  EXPECT_TRUE(log.Contains("metricsMsgBytesSent: 0>--- End Stats dump"));
  clock.RunFor(minutes(5));
  ASSERT_EQ(client->reports.size(), 1U);
  EXPECT_EQ(Reports()[0].guest_info().vm_map_entry_size(), 0) << "what was reported is reported again";
}

TEST_F(PaceTest, ATopicWithoutANameSwitchesNothingOn) {
  Start();
  const auto vm = Add(1);
  Tell({HostConfig(true, 1, "")});
  EXPECT_TRUE(log.Contains("Zemi: No topics found in config msg or both topics are empty"));
  client->VmPowerOnEventHandler(vm);
  EXPECT_TRUE(client->NetworkEventHandler(Connection(*vm), vm));
  clock.RunFor(minutes(10));
  EXPECT_THAT(Reports(), IsEmpty());
  EXPECT_EQ(Mask(*vm), 0U);
}

TEST_F(PaceTest, AFullQueueDropsEventsButNoGuestsMask) {
  Start(10);
  std::vector<std::shared_ptr<VmData>> all;
  for (int i = 1; i <= 30; ++i) all.push_back(Add(i));
  Tell({HostConfig(true)});
  EXPECT_EQ(log.Count("Zemi: VM Q size 10 >= maximum size 10, dropping VM event!"), 20U);
  EXPECT_EQ(client->statistics().dropped, 20U);
  for (const auto& vm : all) EXPECT_EQ(Mask(*vm), 0xE8EU);
  clock.RunFor(minutes(1));
  EXPECT_EQ(Reports()[0].guest_info().vm_map_entry_size(), 10);
}

TEST_F(PaceTest, AnIntervalThatShrinksTakesEffectInTheSameRound) {
  Start();
  Tell({HostConfig(true, 5)});
  clock.RunFor(minutes(4));
  Tell({HostConfig(true, 1)});
  EXPECT_THAT(Reports(), IsEmpty());
  clock.RunFor(minutes(1));
  EXPECT_TRUE(log.Contains("Zemi: collInterval reduced to 60000ms, toCollectCount: 1, iterCount: 4"));
  EXPECT_EQ(Reports().size(), 1U);
  Tell({HostConfig(true, 0)});
  clock.RunFor(minutes(3));
  EXPECT_EQ(Reports().size(), 3U) << "an interval of nothing is one of a minute";
  Tell({HostConfig(true, 4'000'000'000)});
  clock.RunFor(minutes(200));
  EXPECT_THAT(Reports(), IsEmpty());
}

// Days may lie between two collections: what the first one left behind is no news.
TEST_F(PaceTest, ACollectionKnowsNothingOfTheOneBefore) {
  Start();
  const auto vm = Add(1);
  for (const auto& [pause, rounds] : {std::pair{milliseconds(1), 0}, {milliseconds(200000), 3}}) {
    Tell({HostConfig(true, 5)});
    client->NetworkEventHandler(Connection(*vm), vm);
    clock.RunFor(minutes(1));  // one is sorted in
    client->SystemEventHandler(Session(*vm, SESSION_TYPE_LOGON), vm);
    Tell({HostConfig(false)});
    EXPECT_EQ(Mask(*vm), 0xE00U);
    client->VmPowerOffEventHandler(vm);
    clock.RunFor(pause);
    Tell({HostConfig(true, 1)});
    clock.RunFor(minutes(2));
    auto reports = Reports();
    ASSERT_FALSE(reports.empty()) << rounds;
    ASSERT_EQ(reports[0].guest_info().vm_map_entry_size(), 1);
    const pace::VmInfoMsg& guest = reports[0].guest_info().vm_map_entry(0).vm_info();
    EXPECT_EQ(guest.vm_event_size(), 1) << "the guest as it runs now";
    EXPECT_EQ(guest.service_event_size() + guest.user_event_size() + guest.process_entry_size(), 0);
    Tell({HostConfig(false)});
  }
}

TEST_F(PaceTest, AReportThatIsSwitchedOffInItsMiddleEndsThere) {
  Start();
  const auto vm = Add(1);
  Tell({HostConfig(true)});
  for (uint64_t process = 1; process <= 200; ++process) {
    const auto connection = Connection(*vm);
    connection->process_dfw_key = process;
    connection->cmdline.assign(10000, 'x');
    client->NetworkEventHandler(connection, vm);
  }
  client->after_next_report = [this] {
    profiles->tell({{2, "node", {HostConfig(false)}, {}}, {2, "node", {HostConfig(true)}, {}}}, false);
    zem::SleepFor(milliseconds(1));
  };
  clock.RunFor(minutes(1) + milliseconds(10));
  EXPECT_EQ(Reports().size(), 1U) << "the rest belongs to no collection any more";
}

TEST_F(PaceTest, ManySocketsOfAProcessAreOneProcess) {
  Start();
  Tell({HostConfig(true)});
  const auto vm = Add(1);
  for (int i = 0; i < 10; ++i) client->NetworkEventHandler(Connection(*vm), vm);
  auto other = Connection(*vm, CONN_TYPE_LISTEN_STOP);
  other->pid = 200;
  other->missed_login = true;
  client->NetworkEventHandler(other, vm);
  client->NetworkEventHandler(Connection(*vm, CONN_TYPE_CONNECT), vm);
  auto nameless = Connection(*vm);
  nameless->process_name.clear();
  client->NetworkEventHandler(nameless, vm);
  clock.RunFor(minutes(1));
  const pace::VmInfoMsg guest = OnlyGuest();
  EXPECT_EQ(guest.service_event_size(), 11);
  EXPECT_EQ(guest.service_event(10).event_type(), LISTEN_STOP);
  ASSERT_EQ(guest.process_entry_size(), 1);
  EXPECT_EQ(guest.process_entry(0).key(), "12S-1-5-1");
  EXPECT_EQ(guest.service_event(0).process_map_key(), guest.process_entry(0).key());
  EXPECT_EQ(guest.process_entry(0).process_info().pid(), 100U) << "the one that was seen last";
  ASSERT_EQ(guest.user_entry_size(), 1) << "the logon that nobody saw";
  EXPECT_EQ(guest.user_entry(0).user_info().name(), "ann");
  EXPECT_EQ(guest.user_event_size(), 0);
  EXPECT_TRUE(log.Contains("Skipping service event type: 2"));
}

TEST_F(PaceTest, PingOfAMultiSessionHostIsReportedButNotProgrammed) {
  Start();
  Tell({HostConfig(true)});
  struct Case {
    uint32_t os_type;
    bool multi_session;
    uint32_t protocol;
    bool wanted;
  };
  const auto vm = Add(1);
  for (const Case& c :
       {Case{kWindows, true, 1, false}, Case{kWindows, true, 58, false}, Case{kWindows, true, 6, true},
        Case{kWindows, false, 1, true}, Case{kLinux, true, 1, true}}) {
    vm->os.os_type = c.os_type;
    vm->os.terminal_svc_enabled = c.multi_session;
    auto connection = Connection(*vm);
    connection->protocol = c.protocol;
    EXPECT_EQ(client->NetworkEventHandler(connection, vm), c.wanted) << c.os_type << " " << c.protocol;
  }
  clock.RunFor(minutes(1));
  EXPECT_EQ(OnlyGuest().service_event_size(), 5);
}

TEST_F(PaceTest, SessionsBecomeFourKindsOfUserEvents) {
  Start();
  Tell({HostConfig(true)});
  const auto vm = Add(1);
  for (uint32_t type = 0; type <= 9; ++type) client->SystemEventHandler(Session(*vm, type), vm);
  auto renamed = Session(*vm, SESSION_TYPE_LOGON);
  renamed->user_name = "anna";
  client->SystemEventHandler(renamed, vm);
  clock.RunFor(minutes(1));
  pace::VmInfoMsg guest = OnlyGuest();
  std::vector<uint32_t> types;
  for (const auto& event : guest.user_event()) types.push_back(event.event_type());
  EXPECT_THAT(types, ElementsAre(1, 2, 3, 4, 1, 2, 1, 2, 1));
  ASSERT_EQ(guest.user_entry_size(), 1);
  EXPECT_EQ(guest.user_entry(0).user_info().name(), "anna");
  client->SystemEventHandler(Session(*vm, SESSION_TYPE_LOGON, ""), vm);
  clock.RunFor(minutes(1));
  guest = OnlyGuest();
  EXPECT_EQ(guest.user_event_size() + guest.user_entry_size(), 0) << "nobody in particular";
}

TEST_F(PaceTest, WhatAProfilesEndTakesWithIt) {
  Start();
  const Profile site = Site("00000000-0000-0007-0000-000000000008");
  const auto site_of_next = [this] {
    clock.RunFor(minutes(1));
    const auto reports = Reports();
    return reports.size() == 1 ? reports[0].site_id().first() : 99;
  };
  Tell({HostConfig(true), Agent(), site});
  EXPECT_EQ(site_of_next(), 7U);
  Tell({HostConfig(true), Agent()}, {HostConfig(true), Agent(), site});
  EXPECT_EQ(site_of_next(), 5U);
  Tell({HostConfig(true)}, {HostConfig(true), Agent()});
  EXPECT_TRUE(client->collection_enabled()) << "the brokers' end is not the collection's";
  EXPECT_EQ(site_of_next(), 0U);
  Tell({site}, {});
  Tell({}, {HostConfig(true)});
  EXPECT_FALSE(client->collection_enabled());
  Tell({HostConfig(true)});
  EXPECT_EQ(site_of_next(), 7U) << "the site is not told again";
  Tell({}, {});
  EXPECT_FALSE(client->collection_enabled());
  EXPECT_EQ(log.Count("Zemi: Delete profile case, resetting config"), 4U);
}

TEST_F(PaceTest, TheEndSendsNothing) {
  Start();
  Tell({HostConfig(true)});
  const auto vm = Add(1);
  client->VmPowerOnEventHandler(vm);
  client->SystemEventHandler(Session(*vm, SESSION_TYPE_LOGON), vm);
  client->Shutdown();
  EXPECT_TRUE(log.Contains("Zemi: Zemi is being stopped. Not reporting 1 VM events"));
  EXPECT_TRUE(log.Contains("Zemi: Zemi is being stopped. Not reporting 1 user events"));
  EXPECT_EQ(Mask(*vm), 0xE00U);
  Start();
  clock.RunFor(minutes(10));
  EXPECT_THAT(Reports(), IsEmpty());
  Tell({HostConfig(true)});
  clock.RunFor(minutes(1));
  EXPECT_EQ(OnlyGuest().user_event_size(), 0);
}

}  // namespace
}  // namespace Ctxt::PaceClient
