#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "app/ctxteng/kafka/kafka_client.h"

namespace IdpsAlarm {
class IdpsInfo;
}
namespace IdsPollAlarm {
class IdsAlarmReporter;
}

namespace Ctxt {

/// The alarms of intrusion detection: what is sampled on the host, what the alarm library polls, and the one
/// about Kafka.
///
/// Threads: `Start` and `Stop` by the owner, one after the other; the rest from any thread.
class IdsAlarms final : public PaceClient::KafkaAlarm {
 public:
  struct Conditions {
    std::function<bool()> enabled;
    std::function<bool()> has_rules;
    /// The node's id as text; empty while it is not known.
    std::function<std::string()> transport_node;
    /// Whether the firewall passes, or drops, packets because of overload.
    std::function<bool()> bypassed;
    std::function<bool()> dropped;
  };

  explicit IdsAlarms(Conditions conditions);
  ~IdsAlarms() override;

  /// `dpu_id` is empty on a host without a DPU.
  void Start(const std::string& pcap_dir_path, const std::string& dpu_id);
  void Stop();
  /// Clears the alarms that this host's detection may have raised.
  void ResetAll();

  bool Raise(Client client, const std::string& brokers) override;
  void Clear(Client client, const std::string& brokers) override;
  bool Stands(Client client) const override;

 private:
  const Conditions conditions_;
  std::unique_ptr<IdsPollAlarm::IdsAlarmReporter> reporter_;
  // Guards all below, and is held while the alarm is posted: the library does not wait.
  mutable std::mutex mutex_;
  std::shared_ptr<IdpsAlarm::IdpsInfo> info_;
  std::set<Client> raised_by_;
};

}  // namespace Ctxt
