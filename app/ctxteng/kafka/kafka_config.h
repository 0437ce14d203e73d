#pragma once

#include <string>

namespace orlane::zem::context {
class CommonAgentHostConfigMsg;
class ContextHostConfigMsg;
}  // namespace orlane::zem::context

namespace Ctxt {

/// The settings of a Kafka client.
struct KafkaConfig {
  /// The end points, each followed by ",".
  std::string brokers;
  /// The certificate of the brokers' authority, PEM.
  std::string certificate;
  /// The folder of the TLS files.  Ends in "/", because file names are appended to it directly.
  std::string trust_store;
  std::string context_topic;
  std::string metrics_topic;
  std::string event_topic;
  std::string pcap_topic;
};

/// Takes the topics of guests and of their metrics; one that `msg` lacks becomes empty.
void UpdateFromHostConfig(KafkaConfig* config, const orlane::zem::context::ContextHostConfigMsg& msg);

/// Takes brokers, certificate and trust store; an empty trust store becomes "/etc/orlane/zem/".
void UpdateFromCommonAgent(KafkaConfig* config, const orlane::zem::context::CommonAgentHostConfigMsg& msg);

/// The file of `config.certificate`.  All Kafka clients of the process share its name.
std::string BrokerCertFile(const KafkaConfig& config);

/// Writes the certificate to its file, whole or not at all.  A failure is logged; the client that is made
/// next then fails with the library's own reason.
void SaveBrokerCertFile(const KafkaConfig& config);

/// Removes the file.  Call it before `trust_store` is cleared.
void DeleteBrokerCertFile(const KafkaConfig& config);

}  // namespace Ctxt
