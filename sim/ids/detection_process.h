#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "platform/core/unique_fd.h"

namespace zem::sim {

class IdsLedger;

/// One alert, in the field's terms.
struct AlertSpec {
  std::string source = "10.1.2.3";
  std::string destination = "192.168.7.9";
  uint32_t source_port = 51234;
  uint32_t destination_port = 445;
  uint32_t signature_id = 2024217;
  int severity = 1;
  std::string vm_uuid = "vm-1";
  /// The hash of the user's key; 0 for no user.
  uint32_t user_id = 0;
  uint32_t rule_id = 0;
  /// Of the alert's capture; 0 for none.
  uint64_t flow_id = 0;
  uint64_t snip_ts_us = 0;
};

/// The host's detection process: writes lines of JSON into the daemon's socket, as datagrams, and captures
/// into their folder.  It waits for a daemon that is slow, and loses what a daemon that is away does not
/// take.
///
/// Threads: all operations from any thread, one at a time.
class DetectionProcess {
 public:
  struct Counters {
    uint64_t alerts = 0;
    uint64_t notices = 0;
    uint64_t other_lines = 0;
    /// Lines that the daemon's socket did not take: it is away, or was full for five seconds.
    uint64_t refused = 0;
  };

  /// `ledger` outlives the process.
  DetectionProcess(std::string socket, std::string captures, IdsLedger& ledger);

  /// The alert's line.
  static std::string LineOf(const AlertSpec& alert);

  /// Sends `count` alerts; those that the socket took.
  uint64_t SendAlerts(const AlertSpec& alert, uint64_t count);
  /// Sends `count` alerts of many signatures, guests and attackers, by `seed`.
  uint64_t SendBurst(uint64_t count, uint32_t seed);
  /// Writes a capture of `packets` packets and announces it; without packets, announces what is not there.
  bool SendCapture(uint64_t flow_id, uint64_t snip_ts_us, uint32_t packets);
  /// Sends each line of a file of alerts and notices; a notice's capture is written first.  Throws
  /// std::runtime_error when the file cannot be read.
  uint64_t Replay(const std::string& path);
  /// Sends lines that no alert can be read from.
  uint64_t SendGarbage();

  Counters counters() const;

 private:
  bool Send(const std::string& line, uint64_t Counters::*kind);
  bool SendAlert(const AlertSpec& alert);
  bool SendNotice(const std::string& line, uint64_t flow_id, uint64_t snip_ts_us, uint32_t packets);
  bool ReplayLine(const std::string& line);

  const std::string socket_;
  const std::string captures_;
  IdsLedger& ledger_;
  mutable std::mutex mutex_;  // guards what follows, and keeps the lines of one operation together
  zem::UniqueFd sender_;
  Counters counters_;
};

}  // namespace zem::sim
