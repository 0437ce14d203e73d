#include "app/ctxteng/kafka/kafka_config.h"

#include <unistd.h>

#include <cerrno>
#include <mutex>

#include "framework/log/log.h"
#include "framework/process/atomic_file.h"
#include "proto/context/agent_config.pb.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};
constexpr const char* kDefaultTrustStore = "/etc/orlane/zem/";
constexpr const char* kCertFile = "kafka-broker-cert-tarvik.pem";
constexpr uint32_t kGuestTopic = 2;
constexpr uint32_t kGuestMetricsTopic = 4;

// Held while the certificate file changes: the Kafka clients share its name, and it has one writer at a time.
std::mutex file_mutex;

}  // namespace

void UpdateFromHostConfig(KafkaConfig* config, const orlane::zem::context::ContextHostConfigMsg& msg) {
  config->context_topic.clear();
  config->metrics_topic.clear();
  for (const auto& topic : msg.topic()) {
    if (topic.type() == kGuestTopic) config->context_topic = topic.name();
    if (topic.type() == kGuestMetricsTopic) config->metrics_topic = topic.name();
  }
}

void UpdateFromCommonAgent(KafkaConfig* config, const orlane::zem::context::CommonAgentHostConfigMsg& msg) {
  config->brokers.clear();
  for (const std::string& end_point : msg.end_point()) config->brokers += end_point + ",";
  config->certificate = msg.certificate();
  config->trust_store = msg.trust_store().empty() ? kDefaultTrustStore : msg.trust_store();
}

std::string BrokerCertFile(const KafkaConfig& config) { return config.trust_store + kCertFile; }

void SaveBrokerCertFile(const KafkaConfig& config) {
  const std::string file = BrokerCertFile(config);
  std::string error;
  std::lock_guard lock(file_mutex);
  switch (zem::WriteFileWhole(file, config.certificate, &error)) {
    case zem::FileWrite::kDone:
      ZLOG_INFO("Zemi: Successfully saved kafka broker cert file %s", file.c_str());
      return;
    case zem::FileWrite::kNotOpened:
      ZLOG_CTX_ERROR(652, "Zemi: SaveBrokerCertFile Failed to open kafka broker cert file %s", file.c_str());
      break;
    case zem::FileWrite::kNotWritten:
      ZLOG_CTX_ERROR(651, "Zemi: SaveBrokerCertFile Failed to write to kafka broker cert file %s",
                     file.c_str());
      break;
  }
  ZLOG_WARN("Zemi: kafka broker cert file %s: %s", file.c_str(), error.c_str());
}

void DeleteBrokerCertFile(const KafkaConfig& config) {
  const std::string file = BrokerCertFile(config);
  std::lock_guard lock(file_mutex);
  if (::unlink(file.c_str()) == 0) {
    ZLOG_INFO("Zemi: Successfully deleted kafka broker cert file %s", file.c_str());
  } else if (errno == ENOENT) {
    ZLOG_INFO("Zemi: kafka broker cert file %s not found for deleting", file.c_str());
  } else {
    ZLOG_CTX_ERROR(653, "Zemi: Failed to remove kafka broker cert file %s, error %d", file.c_str(), errno);
  }
}

}  // namespace Ctxt
