// Sends messages to brokers over TLS, with the agent's Kafka client and with librdkafka's producer as it is.

#include <librdkafka/rdkafka.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "app/ctxteng/kafka/kafka_client.h"
#include "app/ctxteng/kafka/kafka_config.h"
#include "framework/log/logger.h"
#include "proto/context/ids.pb.h"
#include "sim/kafka/kafka_brokers.h"

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr int kBrokers = 2;
constexpr int kMessages = 30000;
constexpr int kRounds = 5;
constexpr auto kGiveUp = std::chrono::seconds(60);

// About what an alert has.
orlane::zem::context::ids::EventInfoMsg Alert() {
  orlane::zem::context::ids::EventInfoMsg msg;
  auto* const event = msg.add_event_info();
  event->set_signature_id(2024897);
  event->set_signature(std::string(80, 's'));
  event->mutable_src_ip()->set_ipv4(0x0A000001);
  event->mutable_dest_ip()->set_ipv4(0x0A000002);
  event->set_vm_uuid("5029c1b8-0a53-4c0e-9b0c-6f1d3a3f7a01");
  for (int i = 0; i < 10; ++i) {
    auto* const metadata = event->add_event_metadata();
    metadata->set_name("http_hostname");
    metadata->set_value(std::string(50, 'v'));
  }
  return msg;
}

double MessagesPerSecond(SteadyClock::time_point begin) {
  return kMessages / std::chrono::duration<double>(SteadyClock::now() - begin).count();
}

double Ours(const Ctxt::KafkaConfig& config) {
  Ctxt::PaceClient::KafkaDeliveries deliveries;
  Ctxt::PaceClient::KafkaClient client(config, nullptr, deliveries);
  if (!client.IsReady()) throw std::runtime_error("our client is not ready");
  const auto alert = Alert();
  const auto begin = SteadyClock::now();
  for (int i = 0; i < kMessages; ++i) client.SendEvent(alert);
  while (deliveries.succeeded < kMessages) {
    if (SteadyClock::now() - begin > kGiveUp) throw std::runtime_error("ours was not delivered");
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return MessagesPerSecond(begin);
}

double Peer(const Ctxt::KafkaConfig& config, const std::string& brokers, bool tls) {
  char error[512] = "";
  rd_kafka_conf_t* const conf = rd_kafka_conf_new();
  const auto set = [&](const char* key, const std::string& value) {
    if (rd_kafka_conf_set(conf, key, value.c_str(), error, sizeof(error)) != RD_KAFKA_CONF_OK) {
      throw std::runtime_error(error);
    }
  };
  set("bootstrap.servers", brokers);
  set("broker.address.family", "v4");
  if (tls) {
    set("security.protocol", "ssl");
    set("ssl.key.location", config.trust_store + "host-privkey.pem");
    set("ssl.certificate.location", config.trust_store + "host-cert.pem");
    set("ssl.ca.location", Ctxt::BrokerCertFile(config));
  }
  int delivered = 0;
  rd_kafka_conf_set_opaque(conf, &delivered);
  rd_kafka_conf_set_dr_msg_cb(conf, [](rd_kafka_t*, const rd_kafka_message_t* message, void* count) {
    if (message->err == RD_KAFKA_RESP_ERR_NO_ERROR) ++*static_cast<int*>(count);
  });
  rd_kafka_t* const producer = rd_kafka_new(RD_KAFKA_PRODUCER, conf, error, sizeof(error));
  if (producer == nullptr) throw std::runtime_error(error);
  rd_kafka_topic_t* const topic = rd_kafka_topic_new(producer, config.event_topic.c_str(), nullptr);
  const std::string bytes = Alert().SerializeAsString();
  const auto begin = SteadyClock::now();
  for (int i = 0; i < kMessages; ++i) {
    if (rd_kafka_produce(topic, RD_KAFKA_PARTITION_UA, RD_KAFKA_MSG_F_COPY, const_cast<char*>(bytes.data()),
                         bytes.size(), nullptr, 0, nullptr) == -1) {
      throw std::runtime_error(rd_kafka_err2str(rd_kafka_last_error()));
    }
    rd_kafka_poll(producer, 0);
  }
  while (delivered < kMessages) {
    if (SteadyClock::now() - begin > kGiveUp) throw std::runtime_error("the peer's was not delivered");
    rd_kafka_poll(producer, 10);
  }
  const double rate = MessagesPerSecond(begin);
  rd_kafka_topic_destroy(topic);
  rd_kafka_destroy(producer);
  return rate;
}

int Run(int rounds) {
  char folder[] = "/tmp/zem-bench-kafka.XXXXXX";
  if (::mkdtemp(folder) == nullptr) throw std::runtime_error("no folder in /tmp");
  Ctxt::KafkaConfig config;
  double ours = 0;
  double peer = 0;
  double plain = 0;
  // Brokers keep a limited number of messages, and slow down as they fill; each run has fresh ones.
  const auto with_brokers = [&](const auto& run) {
    const zem::sim::KafkaBrokers brokers(kBrokers);
    config.trust_store = std::string(folder) + "/";
    config.certificate = brokers.authority();
    config.brokers = brokers.tls() + ",";
    config.event_topic = "ids-data";
    brokers.WriteHostFiles(config.trust_store);
    Ctxt::SaveBrokerCertFile(config);
    return run(brokers);
  };
  for (int round = 0; round < rounds; ++round) {
    ours = std::max(ours, with_brokers([&](const auto&) { return Ours(config); }));
    peer = std::max(peer, with_brokers([&](const auto&) { return Peer(config, config.brokers, true); }));
    plain = std::max(plain, with_brokers([&](const auto& b) { return Peer(config, b.plain(), false); }));
  }
  std::filesystem::remove_all(folder);
  std::printf("kafka tls messages_per_s ours=%.0f peer=%.0f ratio=%.2f\n", ours, peer, ours / peer);
  // Our client has no plain side; this row shows what TLS costs.
  std::printf("kafka tls-against-plain messages_per_s ours=%.0f peer=%.0f ratio=%.2f\n", ours, plain,
              ours / plain);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  zem::Logger::SetEmitter([](int, const char*) {});
  zem::Logger::logLevel = zem::kLogInfo;
  try {
    return Run(argc > 1 ? std::max(1, std::atoi(argv[1])) : kRounds);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_kafka: %s\n", error.what());
    return 1;
  }
}
