#include "app/ctxteng/kafka/broker_cert_file.h"

#include <map>
#include <mutex>
#include <string>

#include "app/ctxteng/kafka/kafka_config.h"
#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

struct Users {
  std::mutex mutex;  // guards trust_stores, and is held while a file of theirs is written or removed
  std::map<const void*, std::string> trust_stores;

  void LetGo(const void* user) {
    const auto found = trust_stores.find(user);
    if (found == trust_stores.end()) return;
    KafkaConfig config;
    config.trust_store = found->second;
    trust_stores.erase(found);
    for (const auto& [other, trust_store] : trust_stores) {
      if (trust_store != config.trust_store) continue;
      ZLOG_INFO("Zemi: kafka broker cert file %s is still in use", BrokerCertFile(config).c_str());
      return;
    }
    DeleteBrokerCertFile(config);
  }
};

// Never destroyed: clients may let go until the end of the process.
Users& TheUsers() {
  static auto* const users = new Users();
  return *users;
}

}  // namespace

void BrokerCertFiles::Save(const void* user, const KafkaConfig& config) {
  if (config.certificate.empty() || config.trust_store.empty()) return;
  Users& users = TheUsers();
  std::lock_guard lock(users.mutex);
  const auto found = users.trust_stores.find(user);
  if (found != users.trust_stores.end() && found->second != config.trust_store) users.LetGo(user);
  SaveBrokerCertFile(config);
  users.trust_stores[user] = config.trust_store;
}

void BrokerCertFiles::LetGo(const void* user) {
  Users& users = TheUsers();
  std::lock_guard lock(users.mutex);
  users.LetGo(user);
}

}  // namespace Ctxt
