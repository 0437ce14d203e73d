#include <fstream>
#include <optional>

#include "app/alarmsprovider/service/alarms_provider.h"
#include "framework/node/platform_info.h"
#include "platform/monitoring/event_configs.h"
#include "platform/monitoring/event_source.h"
#include "platform/provider/timer.h"
#include "platform/rpc/stub_factory.h"
#include "proto/monitoring/monitoring_services.rpc.h"
#include "sim/alarms/alarm_client.h"
#include "sim/alarms/collector.h"
#include "sim/alarms/status_client.h"
#include "tests/mpaclient/channel_fixture.h"
#include "tests/support/temp_dir.h"

namespace zem::Tarvik {
namespace {

using namespace std::chrono_literals;
using orlane::zem::monitoring::CollectorHostMsg;
using orlane::zem::monitoring::CollectorMpMsg;
using orlane::zem::monitoring::MonitoringProviderService;
using sim::AlarmClient;
using sim::Collector;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kEntity = "aaaaaaaa-0000-4000-8000-000000000001";
constexpr const char* kOtherEntity = "bbbbbbbb-0000-4000-8000-000000000001";
constexpr const char* kPort = "tcp://127.0.0.1:9100";

/// The provider between a manager with its collector and the node's alarm clients, in memory and on a clock
/// in hand.
class AlarmsProviderTest : public ChannelTest {
 protected:
  AlarmsProviderTest() : collector(std::make_unique<Collector>(*manager)) { WriteIssue("zem-qub"); }
  ~AlarmsProviderTest() override {
    clients.clear();
    status.reset();
    if (alarms) alarms->Stop();
    alarms.reset();
    collector.reset();
    SetHostIdentity({});
  }

  void WriteIssue(const std::string& type) {
    folder.Write("issue", "node-type: " + type + "\n");
    HostIdentity identity;
    identity.issue_path = folder.Path("issue");
    SetHostIdentity(identity);
  }
  bool StartProvider() {
    AlarmsProvider::Files files;
    files.ids = {folder.Path("issue"), folder.Path("serial"), folder.Path("proxy"), folder.Path("host")};
    alarms = std::make_shared<AlarmsProvider>(provider, nullptr, files);
    return alarms->Start();
  }
  /// Everything runs, and the collector has agreed to the reset.
  void StartAll() {
    StartManager();
    ASSERT_TRUE(StartProvider());
    proxy_client->Start();
    clock.RunFor(30s);
    ASSERT_TRUE(log.Contains("Reset result: true"));
    Calm();
  }
  /// The collector has no question left.
  void Calm() {
    for (int i = 0; i < 60 && collector->state().busy; ++i) clock.RunFor(1s);
    EXPECT_FALSE(collector->state().busy);
  }
  AlarmClient& AddClient(AlarmClient::Options options) {
    clients.push_back(std::make_unique<AlarmClient>(std::move(options)));
    return *clients.back();
  }
  AlarmClient& AddClient(AlarmClient::Kind kind, const std::string& id) {
    return AddClient({.kind = kind, .source_id = id, .feature_id = FeatureOf(id)});
  }

  // Events of one feature share a report, which names one source only.
  static uint32_t FeatureOf(const std::string& source) { return source == "a" ? 33 : 34; }

  /// Asks and waits for the answer; nothing when none came within `patience`.
  std::optional<CollectorMpMsg> Ask(const CollectorHostMsg& message, Duration patience = 1s) {
    auto answer = std::make_shared<std::optional<CollectorMpMsg>>();
    EXPECT_EQ(
        collector->Ask(message, [answer](const std::optional<CollectorMpMsg>& came) { *answer = came; }), "");
    clock.RunFor(patience);
    return *answer;
  }
  static CollectorHostMsg SyncOf(const std::string& source, uint32_t type) {
    CollectorHostMsg message;
    message.set_msg_type(2);
    auto* const sync = message.mutable_sync_request();
    sync->set_feature_id(FeatureOf(source));
    sync->set_event_type_id(type);
    SetUuid(*ParseUuid(kEntity), sync->mutable_entity_id());
    sync->set_source_id(source);
    return message;
  }
  static CollectorHostMsg OfType(uint32_t type) {
    CollectorHostMsg message;
    message.set_msg_type(type);
    return message;
  }
  /// "SOURCE:TYPE" for each event that stands at the collector.
  std::vector<std::string> Open() const {
    std::vector<std::string> open;
    for (const auto& [key, instance] : collector->state().open)
      open.push_back(instance.source_id + ":" + std::to_string(std::get<1>(key)));
    return open;
  }

  test::TempDir folder;
  std::unique_ptr<Collector> collector;
  std::shared_ptr<AlarmsProvider> alarms;
  std::vector<std::unique_ptr<AlarmClient>> clients;
  std::unique_ptr<sim::StatusClient> status;
};

// A manager that is slow to answer must not be flooded, and an answer to a request that has been given up
// must not start the reports.
TEST_F(AlarmsProviderTest, ResetsGrowApartUntilTheLastOneIsAgreedTo) {
  collector->SetAnswers(Collector::Answers::kFalse);
  StartManager();
  ASSERT_TRUE(StartProvider());
  proxy_client->Start();
  AddClient(AlarmClient::Kind::kSubscribing, "a").Raise({15, kEntity}, "{}");
  clock.RunFor(30s);
  const uint64_t resets = collector->state().resets;
  EXPECT_GE(resets, 2U);
  clock.RunFor(240s);
  EXPECT_LE(collector->state().resets - resets, 5U) << "a minute apart in the end";
  EXPECT_THAT(collector->state().reports, IsEmpty()) << "events wait for the reset";
  EXPECT_EQ(collector->state().node_id, kTn);
  EXPECT_EQ(collector->state().endpoint_id, kTn);

  collector->SetAnswers(Collector::Answers::kTrue);
  // Later than the next request: by then it answers an old one.
  manager->SetRule("AlarmsProvider", false,
                   {.kind = sim::AnswerRule::Kind::kServe, .delay = 70s, .count = 1});
  clock.RunFor(60s);
  manager->SetRule("AlarmsProvider", false, {.kind = sim::AnswerRule::Kind::kNever});
  clock.RunFor(75s);
  EXPECT_FALSE(log.Contains("Reset result: true"));
  manager->SetRule("AlarmsProvider", false, {});
  clock.RunFor(90s);
  Calm();
  EXPECT_THAT(Open(), ElementsAre("a:15"));
  const uint64_t agreed = collector->state().resets;
  clock.RunFor(180s);
  EXPECT_EQ(collector->state().resets, agreed);
  EXPECT_THAT(collector->state().violations, IsEmpty());
}

// Answers that do not parse, or are none, must neither end the conversation nor count as one.
TEST_F(AlarmsProviderTest, BrokenAnswersAreDropped) {
  StartManager();
  ASSERT_TRUE(StartProvider());
  proxy_client->Start();
  const std::vector<std::pair<Collector::Answers, const char*>> cases = {
      {Collector::Answers::kGarbage, "Failed to parse MPA message payload"},
      {Collector::Answers::kNoType, "Received a message without msg_type set. Dropping."},
      {Collector::Answers::kUnknownType, "Got invalid msg from alarms collector"}};
  for (const auto& [answers, text] : cases) {
    collector->SetAnswers(answers);
    clock.RunFor(61s);
    EXPECT_TRUE(log.Contains(text)) << text;
  }
  collector->SetAnswers(Collector::Answers::kTrue);
  clock.RunFor(61s);
  EXPECT_TRUE(log.Contains("Reset result: true"));
}

// A node without an id must not open a conversation, and one whose id changes must use the new one.
TEST_F(AlarmsProviderTest, TheNodesIdIsAwaitedAndFollowed) {
  folder.Write("host", "<config><uuid>5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a99</uuid></config>");
  std::filesystem::rename(folder.Path("host"), folder.Path("hidden"));
  StartManager();
  ASSERT_TRUE(StartProvider());
  clock.RunFor(20s);
  EXPECT_FALSE(log.Contains("reset msg"));
  EXPECT_TRUE(log.Contains("Could not read node uuid. "));
  std::filesystem::rename(folder.Path("hidden"), folder.Path("host"));
  clock.RunFor(30s);
  EXPECT_TRUE(log.Contains("Error sending reset msg"));
  proxy_client->Start();
  clock.RunFor(120s);
  Calm();
  EXPECT_EQ(log.Count("Node-uuid changes from 5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a99 to "), 1U);
  EXPECT_EQ(collector->state().node_id, kTn);
}

// A source of which the collector never hears is a source whose alarms nobody believes.
TEST_F(AlarmsProviderTest, SourcesAreNamedUntilTheCollectorHasThem) {
  collector->SetFollowUps(false);
  AddClient(AlarmClient::Kind::kServing, "a");
  AddClient(AlarmClient::Kind::kSubscribing, "b");
  StartAll();
  EXPECT_THAT(collector->state().sources, ElementsAre("a", "b"));
  const uint64_t syncs = collector->state().source_syncs;
  clock.RunFor(60s);
  EXPECT_EQ(collector->state().source_syncs, syncs) << "nothing is new";
  collector->SetAnswers(Collector::Answers::kNever);
  AddClient(AlarmClient::Kind::kSubscribing, "c");
  clock.RunFor(25s);
  AddClient(AlarmClient::Kind::kSubscribing, "d");
  collector->SetAnswers(Collector::Answers::kTrue);
  clock.RunFor(20s);
  EXPECT_THAT(collector->state().sources, ElementsAre("a", "b", "c", "d"));
  EXPECT_GE(collector->state().source_syncs - syncs, 3U);
  EXPECT_EQ(log.Count("for source-ids: c d"), 1U) << "what was not taken comes with what is new";
}

// Both kinds of clients have to reach the collector, when they raise, when they are asked, and when they go.
TEST_F(AlarmsProviderTest, TheCollectorHasWhatTheClientsSay) {
  StartAll();
  AlarmClient& serving = AddClient(AlarmClient::Kind::kServing, "a");
  AlarmClient& subscribing = AddClient(AlarmClient::Kind::kSubscribing, "b");
  clock.RunFor(20s);
  serving.Raise({15, kEntity}, "{\"n\":1}");
  subscribing.Raise({17, kEntity}, "{}");
  subscribing.Raise({19, kOtherEntity}, "{}");
  clock.RunFor(6s);
  EXPECT_THAT(Open(), ElementsAre("a:15", "b:17", "b:19"));
  subscribing.Clear({19, kOtherEntity});
  clock.RunFor(6s);
  EXPECT_THAT(Open(), ElementsAre("a:15", "b:17"));

  for (const auto& [source, type] : {std::pair{"a", 15}, {"b", 17}}) {
    const auto answer = Ask(SyncOf(source, static_cast<uint32_t>(type)));
    ASSERT_TRUE(answer) << source;
    EXPECT_EQ(answer->msg_type(), 4U);
    EXPECT_EQ(answer->sync_response().status(), 1U);
  }
  EXPECT_EQ(Ask(SyncOf("a", 15))->sync_response().context(), "{\"n\":1}");
  EXPECT_EQ(Ask(SyncOf("a", 99))->sync_response().status(), 0U);

  // A client that was away and has cleared meanwhile: nobody reports the end, so the collector has to ask.
  subscribing.Reconnect();
  subscribing.Clear({17, kEntity});
  serving.Reconnect();
  clock.RunFor(40s);
  Calm();
  EXPECT_THAT(Open(), ElementsAre("a:15"));
  EXPECT_EQ(log.Count("Stub created successfully for (ALARMSLIB_EP::a)"), 2U);
  EXPECT_TRUE(log.Contains("Client: b disconnected"));
  EXPECT_THAT(collector->state().violations, IsEmpty());
  EXPECT_THAT(subscribing.state().violations, IsEmpty());
}

// The collector waits for a sync and gets one answer, whatever a client does; for a full sync it does not
// wait.
// A report that found no road is kept with its number over the full sync that comes next, and that number may
// be the one with which the count starts again.
TEST_F(AlarmsProviderTest, AReportThatWasKeptOverAFullSyncIsNoFault) {
  StartAll();
  AlarmClient& client = AddClient(AlarmClient::Kind::kSubscribing, "a");
  clock.RunFor(10s);
  for (uint32_t i = 0; i < 8; ++i) {
    ASSERT_EQ(collector->AskFullSync([](const auto&) {}), "");
    clock.RunFor(100ms);
    manager->StopProxy();
    client.Raise({i, kEntity}, "{}");
    clock.RunFor(std::chrono::milliseconds(6000 + 600 * i));
    manager->StartProxy();
    bool answered = false;
    for (int tries = 0; tries < 100 && !answered; ++tries) {
      static_cast<void>(
          collector->AskFullSync([&answered](const auto& answer) { answered |= answer.has_value(); }));
      clock.RunFor(300ms);
    }
    clock.RunFor(60s);
    Calm();
  }
  EXPECT_GE(log.Count("Collector is unable to receive reports"), 8U);
  EXPECT_THAT(collector->state().violations, IsEmpty());
  EXPECT_THAT(Open(), SizeIs(8));
}

TEST_F(AlarmsProviderTest, RequestsAreAnsweredOnceWhateverClientsDo) {
  StartAll();
  AlarmClient& serving = AddClient(AlarmClient::Kind::kServing, "a");
  AlarmClient& subscribing = AddClient(AlarmClient::Kind::kSubscribing, "b");
  clock.RunFor(20s);
  serving.Raise({15, kEntity}, "{}");
  subscribing.Raise({15, kEntity}, "{}");
  clock.RunFor(6s);

  CollectorHostMsg incomplete = SyncOf("a", 15);
  incomplete.mutable_sync_request()->clear_entity_id();
  ASSERT_TRUE(Ask(incomplete));
  EXPECT_FALSE(Ask(incomplete)->sync_response().has_status());
  EXPECT_TRUE(log.Contains("Received incomplete Sync request from Alarms Collector. Dropping."));
  EXPECT_FALSE(Ask(SyncOf("x", 15))->sync_response().has_status());
  EXPECT_TRUE(log.Contains("Client : x does not exist. Dropping sync request."));

  // Only the questions of this test count from here on.
  collector->SetFollowUps(false);
  struct Case {
    AlarmClient::Fault fault;
    const char* text;
    bool in_time;
  };
  for (const Case& each :
       {Case{AlarmClient::Fault::kDoubled, "No pending call with correlationId: ", true},
        Case{AlarmClient::Fault::kUnknownId, "No pending call with correlationId: ", false},
        Case{AlarmClient::Fault::kBare, "Reason: Empty source-id. Empty msg type.", false},
        Case{AlarmClient::Fault::kWrongType, "Invalid message received from sub client", true},
        Case{AlarmClient::Fault::kOtherKind, "Handle client response, sourceId = b", true},
        Case{AlarmClient::Fault::kSilent, "", false}}) {
    log.Clear();
    subscribing.SetFault(each.fault);
    const uint64_t sent = manager->record().received_count();
    const auto answer = Ask(SyncOf("b", 15));
    EXPECT_EQ(answer.has_value(), each.in_time) << each.text;
    EXPECT_TRUE(log.Contains(each.text)) << each.text;
    // The answers without which the collector would wait for ever come after a minute, once.
    clock.RunFor(62s);
    EXPECT_EQ(log.Count("Sending message (type:com.orlane.zem.monitoring.CollectorMpMsg"), 2U)
        << each.text << ": one answer and one heartbeat";
    EXPECT_EQ(manager->record().received_count() - sent, 1U) << each.text;
  }
  EXPECT_EQ(subscribing.state().refused_answers, 1U);

  serving.SetFault(AlarmClient::Fault::kSilent);
  const auto answer = Ask(OfType(1), 100ms);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->msg_type(), 3U);
  EXPECT_TRUE(answer->full_sync_response().result());
}

// A second client under the id of a live one must not take its place, and must not end it when it goes.
TEST_F(AlarmsProviderTest, ARefusedClientDoesNotEndTheLiveOne) {
  StartAll();
  AlarmClient& first = AddClient(AlarmClient::Kind::kSubscribing, "b");
  clock.RunFor(5s);
  AddClient(AlarmClient::Kind::kSubscribing, "b");
  AddClient(AlarmClient::Kind::kServing, "b");
  clock.RunFor(5s);
  EXPECT_GE(clients[1]->state().refused_subscriptions, 3U);
  EXPECT_TRUE(log.Contains("Client with sourceId: b already connected. Not reconnecting"));
  clients.erase(clients.begin() + 1, clients.end());
  clock.RunFor(5s);
  EXPECT_FALSE(log.Contains("Client: b disconnected"));
  first.Raise({15, kEntity}, "{}");
  clock.RunFor(5s);
  EXPECT_TRUE(Ask(SyncOf("b", 15))->sync_response().has_status()) << "the first one is still asked";
  clients.clear();
  clock.RunFor(2s);
  EXPECT_EQ(log.Count("Client: b disconnected"), 1U);

  AddClient({.kind = AlarmClient::Kind::kServing, .source_id = "none", .serves = false});
  clock.RunFor(40s);
  EXPECT_TRUE(log.Contains("Stub creation failed for (ALARMSLIB_EP::none)"));
}

// Status must be complete after a loss, without a full sync for each lost report.
TEST_F(AlarmsProviderTest, LostStatusReportsLeadToOneFullSync) {
  StartAll();
  ASSERT_TRUE(Ask(OfType(5))) << "the answer does not wait for a source";
  clock.RunFor(25s);
  EXPECT_EQ(log.Count("Status FullSync failed - retrying"), 3U);
  status = std::make_unique<sim::StatusClient>();
  status->Set("arp", "up");
  clock.RunFor(12s);
  EXPECT_GE(status->state().full_syncs_confirmed, 1U);
  clock.RunFor(10s);
  EXPECT_EQ(collector->state().status_sequence, 1U);

  sim::StatusClient second;
  clock.RunFor(2s);
  EXPECT_GE(second.state().refused, 1U);
  alarms->OnConfigChanged({{"arp", 30}}, false);
  clock.RunFor(1s);
  EXPECT_EQ(status->state().table, (std::map<std::string, uint32_t>{{"arp", 30}}));
  EXPECT_FALSE(status->state().collection_enabled);

  status->SetFullSyncs(sim::StatusClient::FullSyncs::kUnanswered);
  const uint64_t asked = status->state().full_syncs_asked;
  for (int i = 0; i < 1100; ++i) status->Set("f" + std::to_string(i), "up");
  clock.RunFor(1s);
  EXPECT_EQ(log.Count("AggSvc status write to queue failed. Will retry."), 76U);
  EXPECT_EQ(status->state().full_syncs_asked, asked + 1) << "one request for all that was lost";
  status->SetFullSyncs(sim::StatusClient::FullSyncs::kSucceed);
  status.reset();
  clock.RunFor(5s);
  EXPECT_GE(second.state().full_syncs_asked, 1U) << "the other source takes the place";
  EXPECT_THAT(collector->state().violations, IsEmpty());
}

// Only an appliance has a leadership to tell of.
// Of a host that starts again the first report may be lost, and the second has a number that was there
// before.
TEST_F(AlarmsProviderTest, StatusReportsCountAnewAfterAStart) {
  constexpr const char* kForwarding = "tcp://127.0.0.1:4096";
  StartAll();
  status = std::make_unique<sim::StatusClient>();
  for (int i = 0; i < 3; ++i) {
    status->Set("x", std::to_string(i));
    clock.RunFor(12s);
  }
  const uint32_t before = collector->state().status_sequence;
  ASSERT_GE(before, 2U);
  alarms->Stop();
  ASSERT_TRUE(StartProvider());
  const uint64_t resets = collector->state().resets;
  for (int i = 0; i < 200 && collector->state().resets == resets; ++i) clock.RunFor(100ms);
  network.Freeze(kForwarding, true);
  status->Set("x", "lost");
  clock.RunFor(11s);
  network.Break(kForwarding);
  network.Freeze(kForwarding, false);
  clock.RunFor(12s);
  status->Set("x", "taken");
  clock.RunFor(30s);
  EXPECT_LE(collector->state().status_sequence, before);
  EXPECT_GE(collector->state().status_sequence, 2U);
  EXPECT_THAT(collector->state().violations, IsEmpty());
}

TEST_F(AlarmsProviderTest, LeadershipChangesAreForwardedByAnAppliance) {
  StartAll();
  rpc::StubRequest request;
  request.source_id = "me";
  request.target = net::Endpoint(kPort);
  std::optional<MonitoringProviderService::Stub> stub;
  AsioZemProvider caller;
  caller.RunAsync(1);
  caller.rpc().stubs().create<MonitoringProviderService::Stub>(
      request, [&](std::optional<MonitoringProviderService::Stub> made, const rpc::Status&) {
        stub = std::move(made);
      });
  clock.RunFor(1s);
  ASSERT_TRUE(stub);
  struct Observer final : rpc::CallObserver<orlane::zem::VoidMsg> {
    explicit Observer(std::vector<int>& ends) : ends(ends) {}
    void Next(const orlane::zem::VoidMsg&) override {}
    void CallStatus(const rpc::Status& status) override {
      ends.push_back(status.code());
      delete this;
    }
    std::vector<int>& ends;
  };
  std::vector<int> ends;
  orlane::zem::monitoring::LeadershipChangedRequestMsg change;
  change.set_source_id("s");
  change.add_event_type_id(4);
  change.add_event_type_id(5);
  stub->LeadershipChanged(rpc::ClientContext(), change, new Observer(ends));
  stub->Unused1(rpc::ClientContext(), {}, new Observer(ends));
  clock.RunFor(1s);
  EXPECT_TRUE(log.Contains("Received unexpected LeadershipChangedRequest message"));
  WriteIssue("zem-manager zem-controller");
  stub->LeadershipChanged(rpc::ClientContext(), change, new Observer(ends));
  clock.RunFor(1s);
  EXPECT_TRUE(log.Contains(", source-id: s, feature-id: 0, eventtype-id: 4 5"));
  EXPECT_EQ(collector->state().leadership_changes, 1U);
  EXPECT_THAT(ends, ElementsAre(0, rpc::AppStatus::APPLICATION_ERROR, 0));
  stub.reset();
  caller.StopAndWait(true);
}

// The daemon's own alarms take the same way as those of any other client, and outlive the provider.
TEST_F(AlarmsProviderTest, EventSourcesReachTheCollector) {
  EventSourceHandle source = nullptr;
  EXPECT_EQ(EventSource_CreateEx("", 33, &source), kEventSourceInvalidArgument);
  ASSERT_EQ(EventSource_CreateEx("ctxteng", 33, &source), kEventSourceOk);
  std::vector<uint16_t> configured;
  int polls = 0;
  const std::vector<uint16_t> polled = {55, 63};
  ASSERT_EQ(EventSource_SetConfigCallback(source,
                                          [&](const std::vector<EventSourceConfig>& configs) {
                                            for (const auto& each : configs)
                                              configured.push_back(each.event_type_id);
                                          }),
            kEventSourceOk);
  ASSERT_EQ(EventSource_SetPollCallback(source, polled.data(), polled.size(),
                                        [&](const uint16_t* types, size_t count) {
                                          EXPECT_EQ(std::vector<uint16_t>(types, types + count), polled);
                                          ++polls;
                                        }),
            kEventSourceOk);
  EXPECT_EQ(EventSource_SetEventInstanceSample(source, 15, 1, 2, true, "{}"), kEventSourceNotStarted);
  EXPECT_EQ(EventSource_SetEventInstanceSample(nullptr, 15, 1, 2, true, "{}"), kEventSourceNoHandle);
  ASSERT_EQ(EventSource_Start(source), kEventSourceOk);
  // Before there is a provider.
  ASSERT_EQ(EventSource_SetEventInstanceSample(source, 15, 1, 2, true, "{\"n\":1}"), kEventSourceOk);
  StartAll();
  ASSERT_EQ(EventSource_SetEventInstanceSample(source, 17, 1, 2, true, nullptr), kEventSourceOk);
  ASSERT_EQ(EventSource_SetEventInstanceSample(source, 19, 1, 3, true, nullptr), kEventSourceOk);
  clock.RunFor(6s);
  EXPECT_THAT(Open(), ElementsAre("ctxteng:15", "ctxteng:17", "ctxteng:19"));
  EXPECT_THAT(collector->state().sources, ElementsAre("ctxteng"));
  EXPECT_THAT(configured, testing::AllOf(testing::SizeIs(12), testing::Contains(55)));
  const EventSourceEntity gone{1, 3};
  ASSERT_EQ(EventSource_UpdateDeletedEntities(source, 19, &gone, 1), kEventSourceOk);
  ASSERT_EQ(EventSource_SetEventInstanceSample(source, 17, 1, 2, false, nullptr), kEventSourceOk);
  clock.RunFor(60s);
  EXPECT_THAT(Open(), ElementsAre("ctxteng:15"));
  EXPECT_GE(polls, 1);
  alarms->Stop();
  alarms.reset();
  ASSERT_EQ(EventSource_SetEventInstanceSample(source, 19, 1, 3, true, nullptr), kEventSourceOk);
  ASSERT_TRUE(StartProvider());
  clock.RunFor(60s);
  Calm();
  EXPECT_THAT(Open(), ElementsAre("ctxteng:15", "ctxteng:19"));
  EventSource_Destroy(source);
  EXPECT_THAT(collector->state().violations, IsEmpty());
}

// A customization in the file must reach the source that has the event, once, and its end too.
TEST(EventConfigsTest, OnlyChangesAreReported) {
  const test::TempDir folder;
  monitoring::EventConfigs configs(13, folder.Path("events"));
  ASSERT_THAT(configs.Changed(), SizeIs(1)) << "the catalogue's, without a file";
  EXPECT_THAT(configs.Changed(), IsEmpty());
  folder.Write(
      "events",
      "{\"endpoint_protection.partner_channel_down\": {\"is_disabled\": \"true\", \"threshold\": \"7\"},"
      " \"intrusion_detection.process_down\": {\"is_disabled\": \"true\"}}");
  const auto changed = configs.Changed();
  ASSERT_THAT(changed, SizeIs(1));
  EXPECT_TRUE(changed[0].is_disabled);
  EXPECT_EQ(changed[0].threshold, 7U);

  monitoring::EventConfigs memory(33, folder.Path("events"));
  const auto threshold_of = [&memory](uint16_t type) {
    for (const EventSourceConfig& config : memory.Changed()) {
      if (config.event_type_id == type) return config.threshold;
    }
    return 0U;
  };
  folder.Write("events", "{\"intrusion_detection.memory_usage_high\": {\"threshold\": \"0\"}}");
  EXPECT_EQ(threshold_of(15), 75U) << "no threshold was set: with 0 the alarm would always stand";
  folder.Write("events",
               "{\"intrusion_detection.memory_usage_high\": {\"threshold_floating_point\": \"59.5\"}}");
  EXPECT_EQ(threshold_of(15), 60U);
  folder.Write("events", "{\"endpoint_prot");
  EXPECT_THAT(configs.Changed(), IsEmpty()) << "a file that does not read says nothing";
  folder.Write("events", "{}");
  ASSERT_THAT(configs.Changed(), SizeIs(1));
}

// After a stop nothing may be sent any more, by whichever timer or client.
TEST_F(AlarmsProviderTest, AStopEndsEverything) {
  AddClient(AlarmClient::Kind::kSubscribing, "b").Raise({15, kEntity}, "{}");
  StartAll();
  EXPECT_THAT(Open(), ElementsAre("b:15"));
  alarms->Stop();
  log.Clear();
  clock.RunFor(120s);
  EXPECT_FALSE(log.Contains("CollectorMpMsg")) << "nothing is sent any more";
}

}  // namespace
}  // namespace zem::Tarvik
