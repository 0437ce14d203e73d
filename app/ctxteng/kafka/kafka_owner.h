#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "app/ctxteng/kafka/kafka_client.h"
#include "app/ctxteng/kafka/kafka_client_slot.h"
#include "app/ctxteng/kafka/kafka_config.h"

namespace Ctxt::PaceClient {

/// The Kafka settings of one client of the engine, and the Kafka client that is made anew at each change of
/// them.  The file of the brokers' certificate, which has one name for all owners, is written before each
/// client is made and stays until the last owner that uses it lets go.
///
/// Threads: changes and `Shutdown` one after the other, by a thread that may wait for files; `client` and
/// `config` from any thread.
class KafkaOwner {
 public:
  using Change = std::function<void(KafkaConfig&)>;

  /// `alarm` and `deliveries` outlive the owner.
  KafkaOwner(KafkaAlarm* alarm, KafkaDeliveries& deliveries);
  ~KafkaOwner();
  KafkaOwner(const KafkaOwner&) = delete;
  KafkaOwner& operator=(const KafkaOwner&) = delete;

  KafkaConfig config() const;
  /// Null while there is none.  A client that is not ready is one.
  std::shared_ptr<KafkaClient> client() const { return slot_.Get(); }

  /// Changes the settings and puts a new client in the place of the last one.
  void Rebuild(const Change& change);
  /// Changes the settings and drops the client.
  void Drop(const Change& change);
  /// Forgets brokers, certificate and trust store, lets go of the file, and drops the client.
  void ForgetBrokers();
  /// Forgets everything and waits until the last client has sent what it had, at most 10 seconds.
  void Shutdown();

 private:
  KafkaConfig Apply(const Change& change);

  KafkaAlarm* const alarm_;
  KafkaDeliveries& deliveries_;
  mutable std::mutex mutex_;  // guards config_
  KafkaConfig config_;
  KafkaClientSlot slot_;
};

}  // namespace Ctxt::PaceClient
