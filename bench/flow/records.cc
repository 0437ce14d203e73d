// Flow records over TLS, by the agent's Kafka client and by the library's producer as it is; and what a
// change of the settings costs those who send meanwhile.

#include <librdkafka/rdkafka.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "app/ctxteng/kafka/kafka_owner.h"
#include "bench/flow/cases.h"
#include "proto/context/ids.pb.h"
#include "proto/context/pace.pb.h"
#include "sim/kafka/kafka_brokers.h"

namespace zem::bench {
namespace {

using SteadyClock = std::chrono::steady_clock;
using orlane::zem::pace::PaceContextInfoMsg;

constexpr int kBrokers = 2;
constexpr int kRounds = 3;
constexpr auto kGiveUp = std::chrono::seconds(60);
// Neither side keeps more than this in the library, which refuses what is beyond its own limit.
constexpr size_t kMostWaiting = 32 * 1024 * 1024;

struct Size {
  const char* name;
  size_t bytes;
  int messages;
};
constexpr Size kSizes[] = {
    {"record-1KiB", 1024, 20000}, {"record-64KiB", 65536, 1500}, {"record-900KB", 899000, 120}};

class Folder {
 public:
  Folder() {
    char name[] = "/tmp/zem-bench-flow.XXXXXX";
    if (::mkdtemp(name) == nullptr) throw std::runtime_error("no folder in /tmp");
    path_ = name;
  }
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string TrustStore() const { return path_ + "/"; }

 private:
  std::string path_;
};

Ctxt::KafkaConfig ConfigFor(const sim::KafkaBrokers& brokers, const Folder& folder) {
  Ctxt::KafkaConfig config;
  config.trust_store = folder.TrustStore();
  config.certificate = brokers.authority();
  config.brokers = brokers.tls() + ",";
  config.context_topic = "guests";
  config.event_topic = "ids-data";
  brokers.WriteHostFiles(config.trust_store);
  Ctxt::SaveBrokerCertFile(config);
  return config;
}

PaceContextInfoMsg Record(size_t bytes) {
  PaceContextInfoMsg msg;
  auto* const info = msg.mutable_guest_info()->add_vm_map_entry()->mutable_vm_info();
  for (size_t i = 0; msg.ByteSizeLong() + 400 < bytes; ++i) {
    auto* const process = info->add_process_entry();
    process->set_key(std::to_string(i));
    process->mutable_process_info()->set_cmdline(std::string(300, 'c'));
  }
  return msg;
}

void Wait(SteadyClock::time_point begin) {
  if (SteadyClock::now() - begin > kGiveUp) throw std::runtime_error("messages were not delivered");
  std::this_thread::sleep_for(std::chrono::microseconds(100));
}

double Ours(const Ctxt::KafkaConfig& config, const PaceContextInfoMsg& msg, int messages, int window) {
  Ctxt::PaceClient::KafkaDeliveries deliveries;
  Ctxt::PaceClient::KafkaClient client(config, nullptr, deliveries);
  if (!client.IsReady()) throw std::runtime_error("our client is not ready");
  const auto begin = SteadyClock::now();
  for (int sent = 0; sent < messages; ++sent) {
    while (sent - static_cast<int>(deliveries.succeeded) >= window) Wait(begin);
    client.SendContext(msg);
  }
  while (deliveries.succeeded < static_cast<uint64_t>(messages)) Wait(begin);
  return messages / std::chrono::duration<double>(SteadyClock::now() - begin).count();
}

double Peer(const Ctxt::KafkaConfig& config, const PaceContextInfoMsg& msg, int messages, int window) {
  char error[512] = "";
  rd_kafka_conf_t* const conf = rd_kafka_conf_new();
  for (const auto& [key, value] : {std::pair<const char*, std::string>{"bootstrap.servers", config.brokers},
                                   {"broker.address.family", "v4"},
                                   {"security.protocol", "ssl"},
                                   {"ssl.key.location", config.trust_store + "host-privkey.pem"},
                                   {"ssl.certificate.location", config.trust_store + "host-cert.pem"},
                                   {"ssl.ca.location", Ctxt::BrokerCertFile(config)}}) {
    if (rd_kafka_conf_set(conf, key, value.c_str(), error, sizeof(error)) != RD_KAFKA_CONF_OK)
      throw std::runtime_error(error);
  }
  int delivered = 0;
  rd_kafka_conf_set_opaque(conf, &delivered);
  rd_kafka_conf_set_dr_msg_cb(conf, [](rd_kafka_t*, const rd_kafka_message_t* message, void* count) {
    if (message->err == RD_KAFKA_RESP_ERR_NO_ERROR) ++*static_cast<int*>(count);
  });
  rd_kafka_t* const producer = rd_kafka_new(RD_KAFKA_PRODUCER, conf, error, sizeof(error));
  if (producer == nullptr) throw std::runtime_error(error);
  rd_kafka_topic_t* const topic = rd_kafka_topic_new(producer, config.context_topic.c_str(), nullptr);
  std::string bytes = msg.SerializeAsString();
  const auto begin = SteadyClock::now();
  for (int sent = 0; sent < messages; ++sent) {
    while (sent - delivered >= window) rd_kafka_poll(producer, 1);
    if (rd_kafka_produce(topic, RD_KAFKA_PARTITION_UA, RD_KAFKA_MSG_F_COPY, bytes.data(), bytes.size(),
                         nullptr, 0, nullptr) == -1) {
      throw std::runtime_error(rd_kafka_err2str(rd_kafka_last_error()));
    }
    rd_kafka_poll(producer, 0);
  }
  while (delivered < messages) {
    if (SteadyClock::now() - begin > kGiveUp) throw std::runtime_error("the peer's was not delivered");
    rd_kafka_poll(producer, 10);
  }
  const double rate = messages / std::chrono::duration<double>(SteadyClock::now() - begin).count();
  rd_kafka_topic_destroy(topic);
  rd_kafka_destroy(producer);
  return rate;
}

}  // namespace

void MeasureRecords(int percent) {
  const Folder folder;
  for (const Size& size : kSizes) {
    const int messages = std::max(20, size.messages * percent / 100);
    const int window = static_cast<int>(kMostWaiting / size.bytes);
    const PaceContextInfoMsg msg = Record(size.bytes);
    double ours = 0;
    double peer = 0;
    for (int round = 0; round < (percent < 100 ? 1 : kRounds); ++round) {
      // Brokers slow down as they fill; each run has fresh ones.
      for (const bool is_ours : {true, false}) {
        const sim::KafkaBrokers brokers(kBrokers);
        const Ctxt::KafkaConfig config = ConfigFor(brokers, folder);
        if (is_ours) {
          ours = std::max(ours, Ours(config, msg, messages, window));
        } else {
          peer = std::max(peer, Peer(config, msg, messages, window));
        }
      }
    }
    Print(size.name, "messages_per_s", ours, peer, true);
  }
}

// 10,000 alerts a second, while the settings change ten times a second; none may be lost, and none of the
// sends may wait for a client that ends.
void MeasureReplacement(int percent) {
  const Folder folder;
  const sim::KafkaBrokers brokers(kBrokers);
  const Ctxt::KafkaConfig wanted = ConfigFor(brokers, folder);
  Ctxt::PaceClient::KafkaDeliveries deliveries;
  Ctxt::PaceClient::KafkaOwner owner(nullptr, deliveries);
  const auto take = [&](Ctxt::KafkaConfig& config) { config = wanted; };
  owner.Rebuild(take);
  const auto run_for = std::chrono::milliseconds(std::max(300, 30 * percent));
  orlane::zem::context::ids::EventInfoMsg alert;
  alert.add_event_info()->set_signature(std::string(900, 's'));
  const auto stall = [&](bool replacing) {
    std::atomic<bool> ended{false};
    std::thread changes([&] {
      while (replacing && !ended) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        owner.Rebuild(take);
      }
    });
    double longest = 0;
    const auto begin = SteadyClock::now();
    for (auto next = begin; next - begin < run_for; next += std::chrono::microseconds(100)) {
      std::this_thread::sleep_until(next);
      const auto before = SteadyClock::now();
      owner.client()->SendEvent(alert);
      longest =
          std::max(longest, std::chrono::duration<double, std::micro>(SteadyClock::now() - before).count());
    }
    ended = true;
    changes.join();
    return longest;
  };
  const uint64_t each = static_cast<uint64_t>(run_for / std::chrono::microseconds(100));
  const double undisturbed = stall(false);
  const double replacing = stall(true);
  owner.Shutdown();
  if (deliveries.succeeded != 2 * each) {
    throw std::runtime_error(std::to_string(deliveries.succeeded) + " of " + std::to_string(2 * each) +
                             " alerts arrived");
  }
  Print("longest-send-while-replaced", "us", replacing, undisturbed, false);
}

}  // namespace zem::bench
