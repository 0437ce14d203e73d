#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace IdsEvtEng {

/// What arrived from the other producers of alerts on the host, by their node.
///
/// Threads: all operations from any thread.
/// Limits: 1024 nodes; one beyond is not recorded.
class NodeRecords {
 public:
  struct Record {
    uint32_t send_seq = 0;  // never written
    uint32_t old_seq = 0xFFFFFFFF;
    uint32_t drop_count = 0;
    uint32_t rcv_count = 0;  // events
    uint32_t oop_count = 0;
  };

  /// A message with `events` events and this number has arrived.
  void Take(const std::string& node, uint32_t sequence, uint32_t events);
  /// By the node's name.
  std::vector<std::pair<std::string, Record>> All() const;
  void Clear();

  /// The process's records.
  static NodeRecords& Process();

 private:
  mutable std::mutex mutex_;  // guards records_
  std::map<std::string, Record> records_;
};

}  // namespace IdsEvtEng
