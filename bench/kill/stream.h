#pragma once

#include <cstdint>
#include <string>

#include "bench/kill/checksum_question.h"
#include "sim/scenario/node_process.h"

namespace zem::bench {

/// What the manager and the store say, and whether the node has become it: configurations that differ in
/// switches, endpoints and MTU, and logical switches in batches with a barrier.
///
/// Threads: one.
/// Errors: std::runtime_error with what did not hold.
class Stream {
 public:
  explicit Stream(sim::NodeProcess& node);

  /// The next of each, without waiting for what becomes of it.
  void SendConfig();
  void PutSwitches(int count);

  /// After a start of the daemon: the host, the stored file and the store agree on a configuration that was
  /// sent; then the last one is sent again if it is another, as the manager does, and all agree on it.
  void CheckConvergence();

  int configs() const { return config_; }
  int switches() const { return switches_; }
  /// How often the host had a configuration before the last when the daemon was back.
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
