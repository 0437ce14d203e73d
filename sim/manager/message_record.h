#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace zem::sim {

/// A message received from a host.
struct Received {
  uint64_t number;
  std::string aph;
  std::string vertical;
  std::string host;
  bool publish;
  std::string type;
  std::string correlation_id;
  std::string tracking_id;
  std::string json;
};

/// What the manager received and sent.
///
/// Threads: all operations from any thread.
class MessageRecord {
 public:
  /// Keeps so many received messages; older ones are dropped.
  explicit MessageRecord(size_t remembered) : remembered_(remembered) {}

  /// Gives the message its number.
  void AddReceived(Received received);
  /// `member` is the short name of the message's kind.
  void AddSent(const std::string& member, std::string bytes);

  /// The messages of a vertical ("" for all) with numbers above `after`, oldest first.
  std::vector<Received> ReceivedFrom(const std::string& vertical, uint64_t after) const;
  uint64_t received_count() const;
  /// The bytes of the last sent message of a kind, selected by its short name, or of the `back`th before it;
  /// nothing when it was never sent or has been dropped.
  std::optional<std::string> LastSent(const std::string& member, size_t back = 0) const;

 private:
  const size_t remembered_;
  mutable std::mutex mutex_;  // guards all below
  std::deque<Received> received_;
  uint64_t last_number_ = 0;
  std::map<std::string, std::deque<std::string>> last_sent_;  // by member name, newest first
};

}  // namespace zem::sim
