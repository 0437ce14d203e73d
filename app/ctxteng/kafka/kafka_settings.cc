#include "app/ctxteng/kafka/kafka_settings.h"

#include <librdkafka/rdkafka.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <string>

#include "app/ctxteng/kafka/kafka_config.h"
#include "framework/log/log.h"
#include "platform/core/clock.h"

namespace Ctxt::PaceClient {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

struct Setting {
  const char* key;
  // The value is `value`, or what `config` says with `value` behind it.
  std::string KafkaConfig::*config;
  const char* value;
  // The tag's number, or its name where it has no number.
  int number;
  const char* name;
  const char* failure;
};

constexpr std::array kSettings = {
    Setting{"bootstrap.servers", &KafkaConfig::brokers, "", 655, nullptr,
            "Zemi: Failed to set kafka config brokers, error: %s"},
    Setting{"broker.address.family", nullptr, "v4", 656, nullptr,
            "Zemi: Failed to set kafka config broker address family, error: %s"},
    Setting{"reconnect.backoff.ms", nullptr, "5000", 664, nullptr,
            "Zemi: Failed to set reconnect backoff timer, error: %s"},
    Setting{"retry.backoff.ms", nullptr, "5000", 665, nullptr,
            "Zemi: Failed to set retry backoff timer, error: %s"},
    Setting{"statistics.interval.ms", nullptr, "60000", 666, nullptr,
            "Zemi: Failed to set statistics interval, error: %s"},
};

constexpr std::array kTlsSettings = {
    Setting{"security.protocol", nullptr, "ssl", 0, "ERR_CTXT_SET_KAFKA_CONFIG_SEC_PROTOCOL",
            "ZEmi: Failed to set kafka config security protocol, error: %s"},
    Setting{"ssl.key.location", &KafkaConfig::trust_store, "host-privkey.pem", 0,
            "ERR_CTXT_SET_KAFKA_CONFIG_CLIENT_PRIV_KEY_LOC",
            "Zemi: Failed to set kafka client priv key location, error: %s"},
    Setting{"ssl.certificate.location", &KafkaConfig::trust_store, "host-cert.pem", 0,
            "ERR_CTXT_SET_KAFKA_CONFIG_CLIENT_PUB_KEY_LOC",
            "Zemi: Failed to set kafka client public key location, error: %s"},
    Setting{"ssl.ca.location", &KafkaConfig::trust_store, "kafka-broker-cert-tarvik.pem", 660, nullptr,
            "Zemi: Failed to set kafka broker certificate path, error: %s"},
};

// The library would keep 1 GiB of messages for brokers that are away.
constexpr const char* kBacklogKey = "queue.buffering.max.kbytes";
constexpr const char* kBacklogKib = "65536";

constexpr size_t kErrorSize = 512;

bool IsTime(const std::string& key) { return key.ends_with(".ms"); }

bool Apply(rd_kafka_conf_t* settings, const Setting& setting, const KafkaConfig& config) {
  std::string value = (setting.config ? config.*setting.config : std::string()) + setting.value;
  if (IsTime(setting.key)) value = std::to_string(LibraryMs(std::atoi(setting.value)));
  char error[kErrorSize] = "";
  if (rd_kafka_conf_set(settings, setting.key, value.c_str(), error, sizeof(error)) == RD_KAFKA_CONF_OK) {
    return true;
  }
  if (setting.name != nullptr) {
    ZLOG_ERROR(setting.name, setting.failure, error);
  } else {
    ZLOG_CTX_ERROR(setting.number, setting.failure, error);
  }
  return false;
}

template <size_t n>
bool ApplyAll(rd_kafka_conf_t* settings, const std::array<Setting, n>& table, const KafkaConfig& config) {
  for (const Setting& setting : table) {
    if (!Apply(settings, setting, config)) return false;
  }
  return true;
}

void LogLine(const rd_kafka_t*, int, const char* facility, const char* text) {
  ZLOG_TRACE("rdkafka: %s: %s", facility, text);
}

void LogNumberOfEntries(rd_kafka_conf_t* settings) {
  size_t count = 0;
  const char** const entries = rd_kafka_conf_dump(settings, &count);
  ZLOG_INFO("Zemi: Number of kafka config entries %zu", count);
  rd_kafka_conf_dump_free(entries, count);
}

}  // namespace

int LibraryMs(int ms) {
  const zem::Clock& clock = zem::Clock::Process();
  const zem::TimePoint now = clock.Now();
  const auto scaled = clock.OnMachine(now + std::chrono::milliseconds(ms)) - clock.OnMachine(now);
  return static_cast<int>(std::chrono::round<std::chrono::milliseconds>(scaled).count());
}

void KafkaSettingsDelete::operator()(rd_kafka_conf_s* settings) const { rd_kafka_conf_destroy(settings); }

KafkaSettings MakeKafkaSettings(const KafkaConfig& config) {
  KafkaSettings settings(rd_kafka_conf_new());
  LogNumberOfEntries(settings.get());
  // The client works without the library's debug lines.
  static_cast<void>(
      Apply(settings.get(),
            {"debug", nullptr, "broker", 654, nullptr, "Zemi: Failed to set kafka config debug, error: %s"},
            config));
  rd_kafka_conf_set_log_cb(settings.get(), &LogLine);
  const bool topics =
      !config.context_topic.empty() || !config.metrics_topic.empty() || !config.event_topic.empty();
  if (config.brokers.empty() || config.certificate.empty() || !topics) {
    ZLOG_WARN("Zemi: kafka broker or certificate or topic empty");
    return nullptr;
  }
  if (!ApplyAll(settings.get(), kSettings, config)) return nullptr;
  ZLOG_INFO("Zemi: Broker certificate provided, enabling SSL kafka client");
  if (!ApplyAll(settings.get(), kTlsSettings, config)) return nullptr;
  char error[kErrorSize] = "";
  if (rd_kafka_conf_set(settings.get(), kBacklogKey, kBacklogKib, error, sizeof(error)) != RD_KAFKA_CONF_OK) {
    ZLOG_WARN("Zemi: The library's own limit of waiting messages stays: %s", error);
  }
  return settings;
}

}  // namespace Ctxt::PaceClient
