#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/kill/requests/background.h"
#include "bench/kill/requests/checksum_question.h"
#include "sim/scenario/node_process.h"

namespace zem::bench {

inline constexpr const char* kNodeId = "5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a01";

inline constexpr const char* kSecondSwitch = "50 2e 6b 1a 77 c0 41 aa-9d 11 00 00 00 00 00 02";

/// Each element of a JSON list on a line of its own.
std::string Lines(const cJSON* list);
std::string Quoted(const std::string& text);
/// The id of the host switch "ks-N".
std::string SwitchId(int number);

/// The sweep's node, and the requests of its peers that are in progress.
///
/// Threads: one.
/// Errors: std::runtime_error with what was in vain.
class SweepRun {
 public:
  static constexpr auto kPatience = std::chrono::seconds(20);

  explicit SweepRun(int clock_factor);

  sim::NodeProcess& node() { return node_; }
  /// For whatever needs a name or value of its own.
  int NextNumber() { return ++number_; }

  /// Starts a request; `finish` takes its outcome when a daemon serves again.
  void Begin(Background::Work work, std::function<void(const std::string& reason)> finish);
  /// A command that is repeated if it was not answered.
  void Run(const std::string& command);
  /// A command that the host or the manager repeats until it is carried out.
  void Insist(const std::string& command);
  /// Only ends and starts the daemon.
  void Restart();

  /// Whether every request has its outcome.
  bool OperationsEnded() const;
  /// Ends what is in progress and lets each request see its outcome.
  void Finish();
  /// Whether the daemon is connected to the host management daemon.
  bool Serves();
  void AwaitServing();
  /// The checksum of the configuration that the daemon has; also proves that it can be reached.
  std::string StoredChecksum();

 private:
  struct Running {
    std::unique_ptr<Background> work;
    std::function<void(const std::string& reason)> finish;
  };

  sim::NodeProcess node_;
  ChecksumQuestion checksum_{node_, kNodeId};
  std::vector<Running> running_;
  int number_ = 0;
};

}  // namespace zem::bench
