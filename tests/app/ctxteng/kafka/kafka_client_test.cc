#include "app/ctxteng/kafka/kafka_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "app/ctxteng/kafka/kafka_client_slot.h"
#include "app/ctxteng/kafka/kafka_config.h"
#include "platform/core/condition.h"
#include "platform/core/loop_monitor.h"
#include "proto/context/ids.pb.h"
#include "proto/context/pace.pb.h"
#include "sim/kafka/kafka_brokers.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace Ctxt::PaceClient {
namespace {

using orlane::zem::context::ids::EventInfoMsg;
using orlane::zem::context::ids::PcapInfoMsg;
using testing::ElementsAre;
using testing::UnorderedElementsAre;
using zem::sim::BrokerFault;
using zem::sim::KafkaBrokers;

// Of the process's clock, which runs fast here.
constexpr auto kPatience = std::chrono::seconds(1000);

class Alarm final : public KafkaAlarm {
 public:
  bool Raise(Client, const std::string& brokers) override {
    Note("raise " + brokers);
    return wanted;
  }
  void Clear(Client, const std::string& brokers) override { Note("clear " + brokers); }
  bool Stands(Client) const override { return stands; }

  bool WaitFor(size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.WaitFor(lock, kPatience, [this, count] { return calls_.size() >= count; });
  }
  std::vector<std::string> calls() {
    std::lock_guard lock(mutex_);
    return calls_;
  }
  std::atomic<bool> wanted{true};
  std::atomic<bool> stands{true};

 private:
  void Note(std::string call) {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
    changed_.NotifyAll();
  }
  std::mutex mutex_;  // guards calls_
  zem::Condition changed_;
  std::vector<std::string> calls_;
};

class KafkaClientTest : public testing::Test {
 protected:
  KafkaClientTest() {
    config.trust_store = folder.Path() + "/";
    config.certificate = brokers.authority();
    config.brokers = brokers.tls() + ",";
    config.context_topic = "guests";
    config.event_topic = "ids-data";
    config.pcap_topic = "ids-data-pcap";
    brokers.WriteHostFiles(config.trust_store);
    SaveBrokerCertFile(config);
  }

  std::unique_ptr<KafkaClient> Make() { return std::make_unique<KafkaClient>(config, &alarm, deliveries); }

  static bool Eventually(const std::function<bool()>& holds) {
    const zem::TimePoint deadline = zem::Clock::Process().Now() + kPatience;
    while (!holds()) {
      if (zem::Clock::Process().Now() > deadline) return false;
      zem::SleepFor(std::chrono::milliseconds(500));
    }
    return true;
  }

  static EventInfoMsg Event(uint32_t signature) {
    EventInfoMsg msg;
    msg.add_event_info()->set_signature_id(signature);
    return msg;
  }

  const zem::test::TempDir folder;
  zem::test::LogCapture log{zem::kLogDebug};
  KafkaBrokers brokers{2};
  KafkaConfig config;
  Alarm alarm;
  KafkaDeliveries deliveries;
};

TEST_F(KafkaClientTest, EachMessageArrivesInItsTopic) {
  PcapInfoMsg pcap;
  pcap.add_pcap()->set_data(std::string(300000, 'x'));
  orlane::zem::pace::PaceContextInfoMsg context;
  context.mutable_site_id()->set_first(7);
  {
    const auto client = Make();
    ASSERT_TRUE(client->IsReady());
    client->SendEvent(Event(1));
    client->SendEvent(Event(2));
    client->SendPcap(pcap);
    client->SendContext(context);
    EXPECT_TRUE(Eventually([&] { return deliveries.succeeded == 4; })) << "reported without a further send";
  }
  EXPECT_THAT(brokers.Read("ids-data", kPatience).messages,
              UnorderedElementsAre(Event(1).SerializeAsString(), Event(2).SerializeAsString()));
  EXPECT_THAT(brokers.Read("ids-data-pcap", kPatience).messages, ElementsAre(pcap.SerializeAsString()));
  EXPECT_THAT(brokers.Read("guests", kPatience).messages, ElementsAre(context.SerializeAsString()));
  EXPECT_EQ(deliveries.failed, 0U);
  EXPECT_THAT(alarm.calls(), ElementsAre());
}

// A message that the library does not take must not hide behind the counters, nor stop those after it.
TEST_F(KafkaClientTest, TooLargeMessageIsRefusedAlone) {
  PcapInfoMsg pcap;
  pcap.add_pcap()->set_data(std::string(1'100'000, 'x'));
  const auto client = Make();
  client->SendPcap(pcap);
  EXPECT_EQ(log.Count("errorCode=\"CTX663\""), 1U);
  EXPECT_TRUE(log.Contains("Zemi: Failed to send message to kafka topic ids-data-pcap: error "));
  client->SendEvent(Event(1));
  EXPECT_TRUE(Eventually([&] { return deliveries.succeeded == 1; }));
  EXPECT_EQ(deliveries.failed, 0U);
}

TEST_F(KafkaClientTest, IncompleteSettingsMakeNoProducer) {
  struct Case {
    const char* what;
    std::function<void(KafkaConfig&)> change;
    const char* line;
  };
  const char* const kIncomplete = "Zemi: kafka broker or certificate or topic empty";
  const Case cases[] = {
      {"no brokers", [](KafkaConfig& c) { c.brokers.clear(); }, kIncomplete},
      {"no certificate", [](KafkaConfig& c) { c.certificate.clear(); }, kIncomplete},
      {"captures alone",
       [](KafkaConfig& c) {
         c.context_topic.clear();
         c.event_topic.clear();
       },
       kIncomplete},
      {"no host key", [this](KafkaConfig& c) { c.trust_store = folder.Path("none/"); },
       "Failed to create kafka producer, error: "},
      {"a topic name that is too long", [](KafkaConfig& c) { c.event_topic.assign(600, 't'); },
       "Failed to create kafka event topic object, error: "},
  };
  const KafkaConfig good = config;
  for (const Case& c : cases) {
    config = good;
    c.change(config);
    log.Clear();
    const auto client = Make();
    EXPECT_FALSE(client->IsReady()) << c.what;
    EXPECT_TRUE(log.Contains(c.line)) << c.what;
    client->SendEvent(Event(1));
    EXPECT_TRUE(log.Contains("Zemi: Empty event kafka topic object, cannot send msg")) << c.what;
  }
}

TEST_F(KafkaClientTest, AlarmIsRaisedOnceAndClearedWhenTheBrokersAreBack) {
  const auto client = Make();
  client->SendEvent(Event(1));
  ASSERT_TRUE(Eventually([&] { return deliveries.succeeded == 1; }));
  brokers.Break(BrokerFault::kDown);
  ASSERT_TRUE(alarm.WaitFor(1)) << "an idle client notices, too";
  client->SendEvent(Event(2));
  EXPECT_TRUE(client->IsReady());
  brokers.Mend(BrokerFault::kDown);
  ASSERT_TRUE(alarm.WaitFor(2));
  EXPECT_THAT(alarm.calls(), ElementsAre("raise " + config.brokers, "clear " + config.brokers));
  EXPECT_TRUE(Eventually([&] { return deliveries.succeeded == 2; })) << "what waited is sent";
}

// The refusal may come before the client's thread waits for reports.
TEST_F(KafkaClientTest, IdleClientNoticesBrokersThatWereNeverThere) {
  config.brokers = "127.0.0.1:1,";
  const auto client = Make();
  ASSERT_TRUE(alarm.WaitFor(1));
  EXPECT_EQ(alarm.calls().front(), "raise 127.0.0.1:1,");
}

// An alarm that was not wanted at first is raised later, and one that stands ends with its client.
TEST_F(KafkaClientTest, AlarmThatWasNotWantedIsTriedAgain) {
  alarm.wanted = false;
  brokers.Break(BrokerFault::kDown);
  {
    const auto client = Make();
    client->SendEvent(Event(1));
    ASSERT_TRUE(alarm.WaitFor(1));
    EXPECT_FALSE(client->alarm_raised());
    alarm.wanted = true;
    ASSERT_TRUE(Eventually([&] { return client->alarm_raised(); }));
    alarm.stands = false;
    ASSERT_TRUE(alarm.WaitFor(alarm.calls().size() + 1)) << "taken back by somebody else";
    EXPECT_EQ(alarm.calls().back(), "raise " + config.brokers);
  }
  EXPECT_EQ(alarm.calls().back(), "clear " + config.brokers);
  EXPECT_EQ(deliveries.failed, 1U) << "what was given up counts";
}

TEST_F(KafkaClientTest, BrokersThatRefuseGetTheMessageOnceTheyAreMended) {
  struct Case {
    BrokerFault fault;
    const char* line;
  };
  const Case cases[] = {{BrokerFault::kWrongAuthority, "Zemi: Kafka broker SSL failure."},
                        {BrokerFault::kWrongName, "Zemi: Kafka broker SSL failure."},
                        {BrokerFault::kExpired, "Zemi: Kafka broker SSL failure."},
                        {BrokerFault::kRefuses, "Zemi: Kafka "},
                        {BrokerFault::kFull, "Zemi: Successfully sent"},
                        {BrokerFault::kStuck, "Zemi: Successfully sent"}};
  uint64_t sent = 0;
  for (const Case& c : cases) {
    log.Clear();
    brokers.Break(c.fault);
    const auto client = Make();
    client->SendEvent(Event(1));
    EXPECT_TRUE(Eventually([&] { return log.Contains(c.line); })) << c.line;
    zem::SleepFor(std::chrono::seconds(10));
    EXPECT_EQ(deliveries.succeeded, sent);
    brokers.Mend(c.fault);
    ++sent;
    EXPECT_TRUE(Eventually([&] { return deliveries.succeeded == sent; })) << static_cast<int>(c.fault);
  }
}

// A client's end takes up to ten seconds, which its owner and its last user must not wait.
TEST_F(KafkaClientTest, ReplacedClientEndsBehindTheOwnersBack) {
  brokers.Break(BrokerFault::kDown);
  KafkaClientSlot slot;
  // These are tenths of the machine's seconds, in which it may have other work; not each time, though.
  bool at_once = false;
  uint32_t clients = 0;
  for (int tries = 0; tries < 10 && !at_once; ++tries) {
    for (uint32_t i = 0; i < 4; ++i) {
      slot.Replace(Make());
      const auto user = slot.Get();
      user->SendEvent(Event(++clients));
    }
    const zem::TimePoint begin = zem::Clock::Process().Now();
    slot.Replace(nullptr);
    EXPECT_EQ(slot.Get(), nullptr);
    at_once = zem::Clock::Process().Now() - begin < std::chrono::seconds(9);
  }
  EXPECT_TRUE(at_once);
  slot.Shutdown();
  EXPECT_EQ(zem::LoopThread::StepsBefore()["ctxt:kafkaEnd"], clients) << "what a long end does is told";
  EXPECT_EQ(deliveries.failed, clients);
  EXPECT_EQ(log.Count("Zemi: Flushing final messages over kafka"), clients);
}

}  // namespace
}  // namespace Ctxt::PaceClient
