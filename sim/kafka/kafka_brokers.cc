#include "sim/kafka/kafka_brokers.h"

#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>

#include <array>
#include <charconv>
#include <fstream>
#include <map>
#include <stdexcept>

#include "platform/provider/provider.h"
#include "sim/kafka/tls_front.h"

namespace zem::sim {
namespace {

constexpr int16_t kProduce = 0;  // the number of the request in the protocol
constexpr size_t kManyErrors = 10000;
constexpr int kAllBrokers = -1;
constexpr int kValidDays = 30;
constexpr int kPollMs = 100;
constexpr size_t kErrorSize = 512;

struct FaultName {
  const char* name;
  BrokerFault fault;
};
constexpr std::array kFaultNames = {
    FaultName{"down", BrokerFault::kDown},
    FaultName{"refuses", BrokerFault::kRefuses},
    FaultName{"full", BrokerFault::kFull},
    FaultName{"stuck", BrokerFault::kStuck},
    FaultName{"wrong-authority", BrokerFault::kWrongAuthority},
    FaultName{"wrong-name", BrokerFault::kWrongName},
    FaultName{"expired", BrokerFault::kExpired},
};

struct KafkaDelete {
  void operator()(rd_kafka_t* kafka) const { rd_kafka_destroy(kafka); }
  void operator()(rd_kafka_mock_cluster_t* cluster) const { rd_kafka_mock_cluster_destroy(cluster); }
  void operator()(rd_kafka_topic_partition_list_t* list) const {
    rd_kafka_topic_partition_list_destroy(list);
  }
  void operator()(const rd_kafka_metadata_t* metadata) const { rd_kafka_metadata_destroy(metadata); }
  void operator()(rd_kafka_message_t* message) const { rd_kafka_message_destroy(message); }
};
using Kafka = std::unique_ptr<rd_kafka_t, KafkaDelete>;

Kafka MakeKafka(rd_kafka_type_t type, const std::vector<std::pair<const char*, std::string>>& settings) {
  char error[kErrorSize] = "";
  rd_kafka_conf_t* const conf = rd_kafka_conf_new();
  for (const auto& [key, value] : settings) {
    if (rd_kafka_conf_set(conf, key, value.c_str(), error, sizeof(error)) == RD_KAFKA_CONF_OK) continue;
    rd_kafka_conf_destroy(conf);
    throw std::runtime_error(error);
  }
  rd_kafka_t* const kafka = rd_kafka_new(type, conf, error, sizeof(error));
  if (kafka != nullptr) return Kafka(kafka);
  rd_kafka_conf_destroy(conf);
  throw std::runtime_error(error);
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::trunc);
  out << text;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + path);
}

std::vector<uint16_t> Ports(const std::string& bootstraps) {
  std::vector<uint16_t> ports;
  for (size_t at = bootstraps.find(':'); at != std::string::npos; at = bootstraps.find(':', at + 1)) {
    uint16_t port = 0;
    std::from_chars(bootstraps.data() + at + 1, bootstraps.data() + bootstraps.size(), port);
    ports.push_back(port);
  }
  return ports;
}

}  // namespace

std::optional<BrokerFault> BrokerFaultOf(const std::string& name) {
  for (const FaultName& row : kFaultNames) {
    if (name == row.name) return row.fault;
  }
  return std::nullopt;
}

class KafkaBrokers::Impl {
 public:
  explicit Impl(int brokers)
      : owner_(MakeKafka(RD_KAFKA_PRODUCER, {{"log_level", "3"}})),
        cluster_(rd_kafka_mock_cluster_new(owner_.get(), brokers)) {
    if (!cluster_) throw std::runtime_error("no Kafka cluster");
  }

  AsioZemProvider provider_;
  const Kafka owner_;
  const std::unique_ptr<rd_kafka_mock_cluster_t, KafkaDelete> cluster_;
  std::vector<std::unique_ptr<TlsFront>> fronts_;
};

KafkaBrokers::KafkaBrokers(int brokers)
    : authority_("Simulated brokers"), impl_(std::make_unique<Impl>(brokers)) {
  std::map<uint16_t, uint16_t> ports;
  for (const uint16_t port : Ports(plain())) {
    impl_->fronts_.push_back(std::make_unique<TlsFront>(impl_->provider_.io(), port, authority()));
    ports[port] = impl_->fronts_.back()->port();
  }
  for (const auto& front : impl_->fronts_) front->SetPorts(ports);
  Mend(BrokerFault::kWrongAuthority);
  impl_->provider_.RunAsync(1);
}

KafkaBrokers::~KafkaBrokers() {
  impl_->fronts_.clear();
  impl_->provider_.StopAndWait(true);
}

std::string KafkaBrokers::plain() const { return rd_kafka_mock_cluster_bootstraps(impl_->cluster_.get()); }

std::string KafkaBrokers::tls() const {
  std::string list;
  for (const auto& front : impl_->fronts_) {
    list += (list.empty() ? "127.0.0.1:" : ",127.0.0.1:") + std::to_string(front->port());
  }
  return list;
}

void KafkaBrokers::WriteHostFiles(const std::string& folder) const {
  const KeyPair host = ClientPair();
  WriteFile(folder + "host-privkey.pem", host.key);
  WriteFile(folder + "host-cert.pem", host.certificate);
  WriteFile(folder + "broker-authority.pem", authority());
}

void KafkaBrokers::UseCertificate(const KeyPair& pair) {
  for (const auto& front : impl_->fronts_) front->SetCertificate(pair);
}

void KafkaBrokers::Break(BrokerFault fault) {
  rd_kafka_mock_cluster_t* const cluster = impl_->cluster_.get();
  switch (fault) {
    case BrokerFault::kDown:
      rd_kafka_mock_broker_set_down(cluster, kAllBrokers);
      for (const auto& front : impl_->fronts_) front->SetDown(true);
      return;
    case BrokerFault::kRefuses:
      for (const auto& front : impl_->fronts_) front->SetRefusing(true);
      return;
    case BrokerFault::kFull: {
      const std::vector<rd_kafka_resp_err_t> errors(kManyErrors, RD_KAFKA_RESP_ERR_KAFKA_STORAGE_ERROR);
      rd_kafka_mock_push_request_errors_array(cluster, kProduce, errors.size(), errors.data());
      return;
    }
    case BrokerFault::kStuck:
      for (const auto& front : impl_->fronts_) front->SetStuck(true);
      return;
    case BrokerFault::kWrongAuthority:
      return UseCertificate(CertificateAuthority("Another").Sign("broker", "127.0.0.1", kValidDays));
    case BrokerFault::kWrongName:
      return UseCertificate(authority_.Sign("broker", "elsewhere.example", kValidDays));
    case BrokerFault::kExpired:
      return UseCertificate(authority_.Sign("broker", "127.0.0.1", -1));
  }
}

void KafkaBrokers::Mend(BrokerFault fault) {
  rd_kafka_mock_cluster_t* const cluster = impl_->cluster_.get();
  switch (fault) {
    case BrokerFault::kDown:
      rd_kafka_mock_broker_set_up(cluster, kAllBrokers);
      for (const auto& front : impl_->fronts_) front->SetDown(false);
      return;
    case BrokerFault::kRefuses:
      for (const auto& front : impl_->fronts_) front->SetRefusing(false);
      return;
    case BrokerFault::kFull:
      rd_kafka_mock_clear_request_errors(cluster, kProduce);
      return;
    case BrokerFault::kStuck:
      for (const auto& front : impl_->fronts_) front->SetStuck(false);
      return;
    case BrokerFault::kWrongAuthority:
    case BrokerFault::kWrongName:
    case BrokerFault::kExpired:
      return UseCertificate(authority_.Sign("broker", "127.0.0.1", kValidDays));
  }
}

void KafkaBrokers::SetSlow(int milliseconds) {
  rd_kafka_mock_broker_set_rtt(impl_->cluster_.get(), kAllBrokers, milliseconds);
}

KafkaBrokers::Topic KafkaBrokers::Read(const std::string& topic, Duration patience) const {
  Topic read;
  const TimePoint deadline = Clock::Process().Now() + patience;
  const Kafka reader = MakeKafka(RD_KAFKA_CONSUMER, {{"bootstrap.servers", plain()},
                                                     {"broker.address.family", "v4"},
                                                     {"group.id", "reader"},
                                                     {"enable.auto.commit", "false"},
                                                     {"enable.partition.eof", "true"}});
  rd_kafka_topic_t* const handle = rd_kafka_topic_new(reader.get(), topic.c_str(), nullptr);
  const rd_kafka_metadata_t* found = nullptr;
  const auto patience_ms = std::chrono::duration_cast<std::chrono::milliseconds>(patience).count();
  const rd_kafka_resp_err_t error =
      rd_kafka_metadata(reader.get(), 0, handle, &found, static_cast<int>(patience_ms));
  rd_kafka_topic_destroy(handle);
  if (error != RD_KAFKA_RESP_ERR_NO_ERROR) {
    read.error = rd_kafka_err2str(error);
    return read;
  }
  const std::unique_ptr<const rd_kafka_metadata_t, KafkaDelete> metadata(found);
  const std::unique_ptr<rd_kafka_topic_partition_list_t, KafkaDelete> list(
      rd_kafka_topic_partition_list_new(1));
  int open = 0;
  for (int t = 0; t < metadata->topic_cnt; ++t) {
    for (int p = 0; p < metadata->topics[t].partition_cnt; ++p, ++open) {
      rd_kafka_topic_partition_list_add(list.get(), topic.c_str(), metadata->topics[t].partitions[p].id)
          ->offset = RD_KAFKA_OFFSET_BEGINNING;
    }
  }
  if (rd_kafka_assign(reader.get(), list.get()) != RD_KAFKA_RESP_ERR_NO_ERROR) {
    read.error = "the partitions are refused";
    return read;
  }
  while (open > 0) {
    if (Clock::Process().Now() > deadline) {
      read.error = std::to_string(open) + " partitions were not read";
      break;
    }
    const std::unique_ptr<rd_kafka_message_t, KafkaDelete> message(
        rd_kafka_consumer_poll(reader.get(), kPollMs));
    if (!message) continue;
    if (message->err == RD_KAFKA_RESP_ERR__PARTITION_EOF) --open;
    if (message->err != RD_KAFKA_RESP_ERR_NO_ERROR) continue;
    read.messages.emplace_back(static_cast<const char*>(message->payload), message->len);
  }
  rd_kafka_consumer_close(reader.get());
  return read;
}

KafkaBrokers::Counters KafkaBrokers::counters() const {
  Counters sum;
  for (const auto& front : impl_->fronts_) {
    const TlsFront::Counters one = front->counters();
    sum.handshakes += one.handshakes;
    sum.failed_handshakes += one.failed_handshakes;
    sum.connected += one.connected;
  }
  return sum;
}

}  // namespace zem::sim
