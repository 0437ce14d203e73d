#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sim/kafka/flow_records.h"

namespace zem::sim {

class CommandTable;
class KafkaBrokers;

/// The node's brokers, which run from "start" to "stop"; what they hold ends with them.
///
/// Threads: all operations from any thread.
class KafkaService {
 public:
  /// The host's key and certificate are written to `trust_store`, which ends in "/", at each start.
  explicit KafkaService(std::string trust_store);
  ~KafkaService();

  /// Returns null when the brokers run already.  Throws std::runtime_error.
  std::shared_ptr<KafkaBrokers> Start(int brokers);
  /// False when they do not run.
  bool Stop();
  /// Null while they do not run.
  std::shared_ptr<KafkaBrokers> brokers() const;
  /// The brokers' part of the node's picture.
  std::vector<std::string> Draw() const;

  /// The flow records that were judged last.
  void NoteFlowRecords(FlowRecords records);
  std::vector<std::string> Violations() const;

 private:
  const std::string trust_store_;
  mutable std::mutex mutex_;  // guards both
  std::shared_ptr<KafkaBrokers> brokers_;
  FlowRecords flow_records_;
};

/// The commands "start", "stop", "state", "authority", "break", "mend", "slow", "read" and "flow".
void RegisterKafkaCommands(CommandTable& table, KafkaService& service);

}  // namespace zem::sim
