#include "app/ctxteng/ids/ids.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "app/ctxteng/alarm/alarm_registry.h"
#include "app/ctxteng/guest/guest_table.h"
#include "app/ctxteng/idsevents/ids_evt_engine.h"
#include "platform/core/thread.h"
#include "platform/core/uuid.h"
#include "platform/upm/upm_service.h"
#include "proto/base/base.pb.h"
#include "proto/context/agent_config.pb.h"
#include "proto/context/ids.pb.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/firewall_objects.pb.h"
#include "proto/covedb/monitoring_objects.pb.h"
#include "sim/kafka/kafka_brokers.h"
#include "tests/app/ctxteng/alarm/recorded_event_source.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace Ctxt {
namespace {

namespace store = orlane::zem::covedb;
using orlane::zem::context::CommonAgentHostConfigMsg;
using orlane::zem::context::ids::EventInfoMsg;
using testing::ElementsAre;
using zem::upm::Profile;
using zem::upm::ProfileUpdate;

// Of the process's clock, which runs fast here.
constexpr auto kPatience = std::chrono::seconds(1000);
constexpr const char* kSource = "IdpsHostAlarm";
constexpr const char* kSite = "00000000-0000-0005-0000-000000000006";

// The profile service's side of a registration: the test says what the service would.
class Profiles final : public zem::upm::UPMService {
 public:
  Profiles() : UPMService(nullptr) {}
  void Register(uint32_t, std::vector<uint32_t>, zem::upm::ProfileCallback callback) override {
    callbacks.push_back(std::move(callback));
  }
  std::vector<zem::upm::ProfileCallback> callbacks;
};

class IdsTest : public testing::Test {
 protected:
  IdsTest() {
    brokers.WriteHostFiles(trust_store.Path() + "/");
    Add("guest");
    Start();
  }
  ~IdsTest() override { ids->Shutdown(); }

  void Start() {
    ids->RegisterUpmMonitor(profiles);
    ids->Initialize({}, nullptr);
  }
  void Add(const std::string& vc_uuid) {
    auto vm = std::make_shared<VmData>();
    vm->vc_uuid = vc_uuid;
    guests.Add(vm);
    ids->VmPowerOnEventHandler(vm);
  }
  uint64_t Mask(const std::string& vc_uuid) { return guests.Find(vc_uuid)->ids_event_mask.mask; }

  void Toggle(bool on) {
    store::SecurityFeatureToggleMsg toggle;
    toggle.mutable_id()->set_first(0);
    toggle.mutable_id()->set_second(1);
    auto* const feature = toggle.add_feature();
    feature->set_feature(4);
    feature->set_status(on);
    ids->OnFeatureToggle(Update(store::SECURITY_FEATURE_TOGGLE, toggle));
  }
  void Publish(std::optional<bool> publish, const std::optional<std::string>& topic = {}) {
    store::GlobalConfigMsg config;
    auto* const events = config.mutable_ids_event_config();
    if (publish) events->set_publish_east_west(*publish);
    if (topic) events->set_data_topic(*topic);
    ids->OnGlobalConfig(Update(store::GLOBAL_CONFIG, config));
  }
  static RuleTenants::Update Update(store::ObjectType type, const google::protobuf::MessageLite& object,
                                    store::ObjectOpMsg::Operation what = store::ObjectOpMsg::SET) {
    RuleTenants::Update update;
    store::ObjectOpMsg operation;
    operation.set_operation(what);
    update.set_object_type(type);
    update.set_object(object.SerializeAsString());
    update.set_operation(operation.SerializeAsString());
    return update;
  }

  Profile Agent(bool with_site = true) {
    CommonAgentHostConfigMsg agent;
    agent.add_end_point(brokers.tls());
    agent.set_certificate(brokers.authority());
    agent.set_trust_store(trust_store.Path() + "/");
    if (with_site) zem::SetUuid(*zem::ParseUuid(kSite), agent.mutable_site_id());
    return {15, "", agent.SerializeAsString()};
  }
  static Profile Mux(const std::string& site) {
    orlane::zem::context::MetricsMuxUaProfileProtoMsg mux;
    mux.set_site_id(site);
    return {17, "", mux.SerializeAsString()};
  }
  void Tell(std::vector<Profile> now, std::vector<Profile> before = {}, uint32_t entity_type = 2) {
    profiles->callbacks.back()({{entity_type, "node", std::move(now), std::move(before)}}, false);
  }
  std::pair<uint64_t, uint64_t> Site() {
    orlane::zem::UuidMsg site;
    ids->GetSiteId(&site);
    return {site.first(), site.second()};
  }
  bool Eventually(const std::function<bool()>& holds) {
    const zem::TimePoint deadline = zem::Clock::Process().Now() + kPatience;
    while (!holds()) {
      if (zem::Clock::Process().Now() > deadline) return false;
      zem::SleepFor(std::chrono::milliseconds(500));
    }
    return true;
  }
  // What was told before is done when this has been.
  void Settle() {
    const size_t before = log.Count("Ids: ids global/event config absent from message");
    ids->OnGlobalConfig(Update(store::GLOBAL_CONFIG, store::GlobalConfigMsg()));
    ASSERT_TRUE(
        Eventually([&] { return log.Count("Ids: ids global/event config absent from message") > before; }));
  }
  static EventInfoMsg Event(uint32_t signature) {
    EventInfoMsg message;
    message.add_event_info()->set_signature_id(signature);
    return message;
  }
  std::string CertFile() { return trust_store.Read("kafka-broker-cert-tarvik.pem"); }

  zem::test::LogCapture log{zem::kLogDebug};
  const zem::test::TempDir trust_store;
  zem::sim::KafkaBrokers brokers{1};
  zem::test::RecordedEventSource alarms;
  GuestTable guests;
  PaceClient::KafkaDeliveries deliveries;
  std::string node = kSite;
  bool has_proxy = true;
  const std::shared_ptr<Profiles> profiles = std::make_shared<Profiles>();
  const std::shared_ptr<Ids> ids =
      std::make_shared<Ids>(IdsSurroundings{guests, deliveries, nullptr,
                                            [this](std::string* text) {
                                              *text = node;
                                              return has_proxy;
                                            },
                                            [] { return false; }, [] { return false; }});
};

TEST_F(IdsTest, TheToggleDecidesWhichEventsGuestsReport) {
  EXPECT_EQ(Mask("guest"), 0xE00U);
  Toggle(true);
  EXPECT_TRUE(ids->IsEnabled());
  Add("late");
  EXPECT_EQ(Mask("guest"), 0xE48U);
  EXPECT_EQ(Mask("late"), 0xE48U);
  EXPECT_TRUE(ids->NetworkEventHandler(nullptr, nullptr));
  Toggle(false);
  EXPECT_EQ(Mask("guest"), 0xE00U);
  Toggle(true);
  ids->StoreBegins();
  ids->StoreComplete();
  EXPECT_FALSE(ids->IsEnabled()) << "deleted while the store was away";
}

// The store tells the last value of what it deletes.
TEST_F(IdsTest, AGlobalConfigThatIsGoneSwitchesOff) {
  Tell({Agent()});
  store::GlobalConfigMsg config;
  config.mutable_ids_global_config()->set_external_logging(true);
  config.mutable_ids_event_config()->set_publish_east_west(true);
  const auto is_on = [&] { return ids->IsKafkaReady() && ids->IsExternalLoggingEnabled(); };
  const auto is_off = [&] { return !ids->IsKafkaReady() && !ids->IsExternalLoggingEnabled(); };
  ids->OnGlobalConfig(Update(store::GLOBAL_CONFIG, config));
  ASSERT_TRUE(Eventually(is_on));
  ids->OnGlobalConfig(Update(store::GLOBAL_CONFIG, config, store::ObjectOpMsg::DELETE));
  EXPECT_TRUE(Eventually(is_off));

  ids->StoreBegins();
  ids->OnGlobalConfig(Update(store::GLOBAL_CONFIG, config));
  ids->StoreComplete();
  Settle();
  EXPECT_TRUE(is_on()) << "the store had it when it came back";
  ids->StoreBegins();
  ids->StoreComplete();
  EXPECT_TRUE(Eventually(is_off)) << "deleted while the store was away";
}

// Settings come from two sides, and neither side repeats itself.
TEST_F(IdsTest, AlertsReachTheBrokersWhicheverSettingComesLast) {
  EXPECT_EQ(ids->SendKafkaEvent(Event(1)), -1);
  EXPECT_TRUE(log.Contains("Zemi: Kafka client for ids event not configured yet, dropping msg"));
  Tell({Agent()});
  Settle();
  EXPECT_FALSE(ids->IsKafkaReady());
  Publish(true);
  ASSERT_TRUE(Eventually([&] { return ids->IsKafkaReady(); }));
  EXPECT_EQ(CertFile(), brokers.authority());
  EXPECT_EQ(Site(), std::pair(uint64_t{5}, uint64_t{6}));
  EXPECT_EQ(ids->SendKafkaEvent(Event(2)), 0);
  ASSERT_TRUE(Eventually([&] { return deliveries.succeeded == 1; }));
  EXPECT_THAT(brokers.Read("ids-data", kPatience).messages, ElementsAre(Event(2).SerializeAsString()));

  Publish({}, "other");
  ASSERT_TRUE(Eventually([&] { return !ids->IsKafkaReady(); }));
  EXPECT_TRUE(log.Contains("Ids: Trigger reset kafka topics"));
  EXPECT_TRUE(log.Contains("Ids: kafka will be disabled for topic: ids-data-pcap, ids-data"));
  Publish(false);
  Settle();
  EXPECT_TRUE(log.Contains("Ids: kafka already disabled. Ignore.."));
  Publish(true, "other");
  ASSERT_TRUE(Eventually([&] { return ids->IsKafkaReady(); }));
  Publish(true, "");
  Settle();
  EXPECT_TRUE(log.Contains("Ids: Empty kafka topic name. Ignore request."));
  Tell({Agent(false)}, {Agent()});
  Settle();
  EXPECT_EQ(ids->SendKafkaEvent(Event(3)), 0);
  ASSERT_TRUE(Eventually([&] { return deliveries.succeeded == 2; }));
  EXPECT_THAT(brokers.Read("other", kPatience).messages, ElementsAre(Event(3).SerializeAsString()));
  EXPECT_EQ(Site(), std::pair(uint64_t{5}, uint64_t{6})) << "a profile without a site leaves it";
}

TEST_F(IdsTest, WhatAProfilesEndTakesWithIt) {
  Publish(true);
  Tell({Agent(), Mux("00000000-0000-0007-0000-000000000008")});
  ASSERT_TRUE(Eventually([&] { return ids->IsKafkaReady(); }));
  Settle();
  EXPECT_EQ(Site().first, 7U) << "the last one counts";
  profiles->callbacks.back()({}, true);
  Settle();
  EXPECT_TRUE(log.Contains("Ids: Full sync true and update size zero; ignore config"));
  EXPECT_TRUE(ids->IsKafkaReady());
  // The site alone.
  Tell({Agent()}, {Agent(), Mux("00000000-0000-0007-0000-000000000008")});
  Settle();
  EXPECT_EQ(Site().first, 5U);
  Tell({}, {Mux("00000000-0000-0007-0000-000000000008")});
  Settle();
  EXPECT_EQ(Site().first, 0U);
  EXPECT_TRUE(ids->IsKafkaReady());
  // The brokers.
  Tell({}, {Agent()});
  Settle();
  EXPECT_FALSE(ids->IsKafkaReady());
  EXPECT_EQ(CertFile(), "");
  EXPECT_TRUE(log.Contains("Ids: kafka will be disabled for brokers: " + brokers.tls() + ","));
  Tell({}, {});
  Settle();
  EXPECT_TRUE(log.Contains("Ids: kafka has been already disabled. Ignore.."));
}

TEST_F(IdsTest, AProfileThatIsNoneDoesNotHideTheOnesBesideIt) {
  Publish(true);
  Tell({Agent()}, {}, 3);
  Settle();
  EXPECT_TRUE(log.Contains("Ids: UPM service callback with invalid entity type: 3. Ignored"));
  EXPECT_EQ(Site().first, 0U);
  Tell({{15, "", "\xff\xff"}, {std::nullopt, "", ""}, {9, "", ""}, Mux("no uuid"), Agent()});
  Settle();
  EXPECT_TRUE(log.Contains("errorCode=\"CTX351\""));
  EXPECT_TRUE(log.Contains("Ids: Config msg does not have a profile type"));
  EXPECT_TRUE(log.Contains("Ids: Unexpected profile type: 9; ignored."));
  EXPECT_TRUE(log.Contains("Ids: missing site id in Metrics Profile Msg"));
  EXPECT_TRUE(ids->IsKafkaReady());
  EXPECT_EQ(log.Count(brokers.authority().substr(40, 40)), 0U) << "the certificate is in a log line";
}

// Nobody watches a feature that is off: an alarm that stays raised would send an operator to a dead end.
TEST_F(IdsTest, TheBrokersAlarmIsRaisedAndClearedWithTheFeature) {
  Toggle(true);
  Publish(true);
  Tell({Agent()});
  ASSERT_TRUE(Eventually([&] { return ids->IsKafkaReady(); }));
  // A client that has never had anything to send keeps no connection that could be missed.
  ids->SendKafkaEvent(Event(1));
  ASSERT_TRUE(Eventually([&] { return deliveries.succeeded == 1; }));
  brokers.Break(zem::sim::BrokerFault::kDown);
  ASSERT_TRUE(Eventually([&] { return alarms.Get(kSource, 83).raised; }));
  EXPECT_EQ(alarms.Get(kSource, 83).context, std::string("{\"transport_node_name\":\"") + kSite +
                                                 "\",\"messaging_broker_ip\":\"" + brokers.tls() + ",\"}");
  Toggle(false);
  ASSERT_TRUE(Eventually([&] { return !alarms.Get(kSource, 83).raised; }));
  for (const uint16_t type : {13, 15, 17, 19}) EXPECT_EQ(alarms.Get(kSource, type).raised, false) << type;
  EXPECT_TRUE(Eventually([&] { return log.Contains("IdpsAlarm: IDS disabled hence ignoring the alarm"); }));
  EXPECT_FALSE(alarms.Get(kSource, 83).raised);
  Toggle(true);
  EXPECT_TRUE(Eventually([&] { return alarms.Get(kSource, 83).raised; })) << "it is still so";
  ids->SendKafkaEvent(Event(2));
  brokers.Mend(zem::sim::BrokerFault::kDown);
  EXPECT_TRUE(Eventually([&] { return !alarms.Get(kSource, 83).raised; }));
}

// The flow context client's Kafka client reports to the same alarm.
TEST_F(IdsTest, TheBrokersAlarmStandsUntilTheLastClientClearsIt) {
  Toggle(true);
  Settle();
  PaceClient::KafkaAlarm& alarm = ids->kafka_alarm();
  const int one = 1;
  const int other = 2;
  EXPECT_TRUE(alarm.Raise(&one, "b,"));
  EXPECT_TRUE(alarm.Raise(&other, "b,"));
  alarm.Clear(&one, "b,");
  EXPECT_TRUE(alarms.Get(kSource, 83).raised);
  alarm.Clear(&other, "b,");
  EXPECT_FALSE(alarms.Get(kSource, 83).raised);
  EXPECT_TRUE(alarm.Raise(&other, "b,"));
  EXPECT_TRUE(alarm.Stands(&other));
  Toggle(false);
  Settle();
  EXPECT_FALSE(alarms.Get(kSource, 83).raised);
  EXPECT_FALSE(alarm.Stands(&other)) << "so that it is raised again when the feature comes back";
}

TEST_F(IdsTest, TheNodesIdIsAskedForEachTime) {
  orlane::zem::UuidMsg uuid;
  has_proxy = false;
  EXPECT_FALSE(ids->GetTnUuid(&uuid));
  EXPECT_TRUE(log.Contains("Ids: Failed to get Tn proxy client"));
  has_proxy = true;
  node = "";
  EXPECT_FALSE(ids->GetTnUuid(&uuid));
  EXPECT_TRUE(log.Contains("Ids: Exception retreiving tn uuid error: "));
  node = kSite;
  EXPECT_TRUE(ids->GetTnUuid(&uuid));
  EXPECT_EQ(uuid.second(), 6U);
}

TEST_F(IdsTest, ANewStartKnowsNothingOfTheLast) {
  Toggle(true);
  Publish(true);
  Tell({Agent()});
  store::GlobalConfigMsg config;
  config.mutable_ids_global_config()->set_external_logging(true);
  ids->OnGlobalConfig(Update(store::GLOBAL_CONFIG, config));
  ASSERT_TRUE(Eventually([&] { return ids->IsKafkaReady() && ids->IsExternalLoggingEnabled(); }));
  EXPECT_NE(alarms::Find(33), nullptr);
  ids->Shutdown();
  EXPECT_EQ(alarms::Find(33), nullptr);
  EXPECT_THAT(alarms.Sources(), testing::IsEmpty());
  EXPECT_FALSE(ids->IsKafkaReady());
  EXPECT_EQ(CertFile(), "");
  Start();
  EXPECT_FALSE(ids->IsEnabled());
  EXPECT_FALSE(ids->IsExternalLoggingEnabled());
  Publish(true);
  // The service still has the first registration.
  profiles->callbacks.front()({{2, "node", {Agent()}, {}}}, true);
  Settle();
  EXPECT_FALSE(ids->IsKafkaReady());
  Tell({Agent()});
  EXPECT_TRUE(Eventually([&] { return ids->IsKafkaReady(); }));
}

}  // namespace
}  // namespace Ctxt
