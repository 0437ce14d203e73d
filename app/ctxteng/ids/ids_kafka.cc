#include "app/ctxteng/ids/ids_kafka.h"

#include <string>
#include <utility>

#include "app/ctxteng/kafka/kafka_profiles.h"
#include "framework/log/log.h"
#include "proto/context/ids.pb.h"
#include "proto/covedb/monitoring_objects.pb.h"

namespace Ctxt {
namespace {

using PaceClient::KafkaClient;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};
constexpr const char* kEventTopic = "ids-data";
constexpr const char* kPcapTopic = "ids-data-pcap";

constexpr KafkaProfileTexts kTexts = {
    .received = "Ids: Received Upm callback, profileUpdateList size: %zu, fullSync: %s",
    .nothing = "Ids: Full sync true and update size zero; ignore config",
    .entity = nullptr,
    .foreign = "Ids: UPM service callback with invalid entity type: %d. Ignored",
    .sizes = "Ids: Size of new_profiles: %lu, old_profiles: %lu",
    .gone = "Ids: Delete profile case, resetting config",
    .untyped = "Ids: Config msg does not have a profile type",
    .type = "Ids: updating local config profile type: %d",
    .unexpected = "Ids: Unexpected profile type: %d; ignored.",
    .failed = "Ids: Exception in processing common agent host config updates. error: %s",
    .failed_unknown = "Ids: Unknown exception in processing common agent host config updates",
    .agent_begin = "Ids Config Kafka: --- <",
    .agent_end = "%s > --- Ids Config Kafka",
    .agent_updating = nullptr,
    .agent_site = "Ids: set site id: %s has been set",
    .agent_no_site = "Ids: missing site id in Common Agent Message",
    .mux_begin = "Metrics Mux Profile: --- <",
    .mux_end = "%s > --- Metrics Mux Profile",
    .mux_updating = nullptr,
    .mux_site = "Ids: Metrics Profile Msg site id: %s has been set",
    .mux_no_site = "Ids: missing site id in Metrics Profile Msg",
    .site_reset = "Ids: reset site id done",
};

std::string Dump(const orlane::zem::covedb::IdsEventConfigMsg& config) {
  std::string text;
  if (config.has_publish_east_west()) {
    text = std::string("publish ids events: ") + (config.publish_east_west() ? "TRUE" : "FALSE");
  }
  if (config.has_data_topic())
    text += (text.empty() ? "data topic: " : " data topic: ") + config.data_topic();
  return text;
}

}  // namespace

class IdsKafka::Profiles final : public KafkaProfiles {
 public:
  Profiles(PaceClient::KafkaOwner& kafka, SiteId& site) : KafkaProfiles(kTexts, kafka, site) {}

 private:
  void ForgetBrokers() override {
    const std::string brokers = kafka().config().brokers;
    if (brokers.empty()) {
      ZLOG_INFO("Ids: kafka has been already disabled. Ignore..");
      return;
    }
    ZLOG_INFO("Ids: kafka will be disabled for brokers: %s", brokers.c_str());
    KafkaProfiles::ForgetBrokers();
  }
};

IdsKafka::IdsKafka(PaceClient::KafkaAlarm* alarm, PaceClient::KafkaDeliveries& deliveries)
    : kafka_(alarm, deliveries), profiles_(std::make_unique<Profiles>(kafka_, site_)) {}

IdsKafka::~IdsKafka() = default;

void IdsKafka::TakeProfiles(const std::vector<zem::upm::ProfileUpdate>& updates, bool full_sync) {
  profiles_->Take(updates, full_sync);
}

void IdsKafka::TakeEventConfig(const orlane::zem::covedb::IdsEventConfigMsg& config, bool with_captures) {
  ZLOG_INFO("Ids::Dump Config Kafka: %s", Dump(config).c_str());
  if (config.has_publish_east_west()) {
    ZLOG_INFO("Ids: Publish ids event east-west set to: %s", config.publish_east_west() ? "true" : "false");
  } else {
    ZLOG_INFO("Ids: Trigger reset kafka topics");
  }
  if (!config.publish_east_west()) return Disable(with_captures);
  const std::string topic = config.has_data_topic() ? config.data_topic() : kEventTopic;
  if (topic.empty()) {
    ZLOG_CTX_ERROR(354, "Ids: Empty kafka topic name. Ignore request.");
    return;
  }
  kafka_.Rebuild([&](KafkaConfig& settings) {
    settings.event_topic = topic;
    if (with_captures) settings.pcap_topic = kPcapTopic;
  });
}

void IdsKafka::Disable(bool with_captures) {
  const KafkaConfig config = kafka_.config();
  if (config.event_topic.empty()) {
    ZLOG_INFO("Ids: kafka already disabled. Ignore..");
    return;
  }
  if (with_captures) {
    ZLOG_INFO("Ids: kafka will be disabled for topic: %s, %s", config.pcap_topic.c_str(),
              config.event_topic.c_str());
  } else {
    ZLOG_INFO("Ids: kafka will be disabled for topic: %s", config.event_topic.c_str());
  }
  kafka_.Drop([](KafkaConfig& settings) {
    settings.context_topic.clear();
    settings.metrics_topic.clear();
    settings.event_topic.clear();
    settings.pcap_topic.clear();
  });
}

void IdsKafka::Shutdown() {
  kafka_.Shutdown();
  site_.Forget();
}

bool IdsKafka::IsReady() const {
  const auto client = kafka_.client();
  if (client) return client->IsReady();
  ZLOG_DEBUG("Ids: kafka client doesnt exist");
  return false;
}

int IdsKafka::SendEvent(const orlane::zem::context::ids::EventInfoMsg& message) {
  const auto client = kafka_.client();
  if (!client) {
    ZLOG_WARN("Zemi: Kafka client for ids event not configured yet, dropping msg");
    return -1;
  }
  client->SendEvent(message);
  return 0;
}

int IdsKafka::SendPcap(const orlane::zem::context::ids::PcapInfoMsg& message) {
  const auto client = kafka_.client();
  if (!client) {
    ZLOG_WARN("Zemi: Kafka client for ids pcap not configured yet, dropping msg");
    return -1;
  }
  client->SendPcap(message);
  return 0;
}

void IdsKafka::ClearAlarm() {
  const auto client = kafka_.client();
  if (client && client->IsReady()) client->ClearAlarm();
}

}  // namespace Ctxt
