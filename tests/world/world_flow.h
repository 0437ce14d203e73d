#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "app/ctxteng/guest/guest_table.h"
#include "app/ctxteng/kafka/kafka_client.h"
#include "platform/core/clock.h"

namespace zem::sim {
class Store;
}
namespace zem::upm {
class UPMService;
}

namespace zem::world {

/// The flow context client in the world: guests that do something, a manager that wants to know it or not,
/// and brokers that are away at times.  At quiet the brokers have what the guests did since the collection
/// was switched on last, once each, and nothing of an earlier one.
///
/// Threads: the thread of the life.
class WorldFlow {
 public:
  /// `store` outlives the object.
  explicit WorldFlow(sim::Store& store);
  ~WorldFlow();

  void StartAgent(const std::shared_ptr<upm::UPMService>& profiles);
  void StopAgent();

  /// A few events of guests.
  void Change(std::mt19937_64& random);
  /// The node's profiles change, or the brokers go or come.
  void Disturb(std::mt19937_64& random);
  void Calm();
  std::vector<std::string> Check();

 private:
  class Client;
  static constexpr int kGuests = 5;

  void Step(std::mt19937_64& random);
  template <class Call>
  void Give(uint64_t tag, const Call& call);
  void Receive(const std::string& bytes);
  void Arrive(const std::string& bytes);
  void SetBrokers(bool there);
  void PutProfile(const std::string& id, uint32_t type, const std::string& payload);
  void DropProfile(const std::string& id);
  void PutFlow(bool on, uint32_t interval);
  void WriteProfiles(const std::string& removed);

  sim::Store& store_;
  std::map<std::string, std::string> profiles_;
  Ctxt::GuestTable guests_;
  std::array<Ctxt::GuestTable::Record, kGuests> running_;
  Ctxt::PaceClient::KafkaDeliveries deliveries_;
  std::shared_ptr<Client> client_;
  uint64_t tags_ = 0;

  std::mutex mutex_;                    // guards what follows
  std::map<uint64_t, uint64_t> given_;  // event to the collection that it belongs to
  std::set<uint64_t> unsure_;           // given while the collection was switched
  std::set<uint64_t> arrived_;
  std::set<uint64_t> lost_;  // at brokers that were away for too long
  std::map<uint64_t, TimePoint> first_seen_;
  std::deque<std::string> waiting_;
  std::vector<std::string> messages_;  // since the last check
  std::string last_site_;
  bool brokers_there_ = true;
  std::vector<std::string> wrong_;
};

}  // namespace zem::world
