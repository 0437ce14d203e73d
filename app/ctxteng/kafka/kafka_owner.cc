#include "app/ctxteng/kafka/kafka_owner.h"

#include "app/ctxteng/kafka/broker_cert_file.h"

namespace Ctxt::PaceClient {

KafkaOwner::KafkaOwner(KafkaAlarm* alarm, KafkaDeliveries& deliveries)
    : alarm_(alarm), deliveries_(deliveries) {}

KafkaOwner::~KafkaOwner() { BrokerCertFiles::LetGo(this); }

KafkaConfig KafkaOwner::config() const {
  std::lock_guard lock(mutex_);
  return config_;
}

KafkaConfig KafkaOwner::Apply(const Change& change) {
  std::lock_guard lock(mutex_);
  if (change) change(config_);
  return config_;
}

void KafkaOwner::Rebuild(const Change& change) {
  const KafkaConfig config = Apply(change);
  BrokerCertFiles::Save(this, config);
  slot_.Replace(std::make_unique<KafkaClient>(config, alarm_, deliveries_));
}

void KafkaOwner::Drop(const Change& change) {
  Apply(change);
  slot_.Replace(nullptr);
}

void KafkaOwner::ForgetBrokers() {
  BrokerCertFiles::LetGo(this);
  Drop([](KafkaConfig& config) {
    config.brokers.clear();
    config.certificate.clear();
    config.trust_store.clear();
  });
}

void KafkaOwner::Shutdown() {
  BrokerCertFiles::LetGo(this);
  Apply([](KafkaConfig& config) { config = {}; });
  slot_.Shutdown();
}

}  // namespace Ctxt::PaceClient
