#pragma once

#include <cstdint>
#include <string>

#include "bench/kill/requests/checksum_question.h"
#include "sim/scenario/node_process.h"

namespace zem::bench {

/// Sends what the manager and the store send, and checks whether the node follows: configurations that differ
/// in switches, endpoints and MTU, and logical switches in batches with a barrier.
///
/// Threads: one.
/// Errors: std::runtime_error with the check that failed.
class Stream {
 public:
  explicit Stream(sim::NodeProcess& node);

  /// Sends the next of each, without waiting for the outcome.
  void SendConfig();
  void PutSwitches(int count);

  /// After a start of the daemon: checks that the host, the stored file and the store agree on a
  /// configuration that was sent.  If it is not the last one, sends that again, as the manager does, and
  /// checks that all agree on it.
  void CheckConvergence();

  int configs() const { return config_; }
  int switches() const { return switches_; }
  /// How often the host had an earlier configuration than the last when the daemon was back.
  int resent() const { return resent_; }

 private:
  std::string ConfigText(int number) const;
  void CheckFiles();

  sim::NodeProcess& node_;
  ChecksumQuestion checksum_;
  int config_ = 0;
  int switches_ = 0;
  uint64_t barrier_ = 0;
  int resent_ = 0;
};

}  // namespace zem::bench
