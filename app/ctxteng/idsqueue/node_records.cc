#include "app/ctxteng/idsqueue/node_records.h"

#include "framework/log/log.h"

namespace IdsEvtEng {
namespace {

constexpr zem::LogSource kLog{"tarvik", "idsevt"};

constexpr size_t kMostNodes = 1024;
constexpr uint32_t kNoneYet = 0xFFFFFFFF;
// A number that is further back than this is one after the counter's turn.
constexpr uint32_t kFarthestBack = 65535;

void TakeSequence(uint32_t sequence, NodeRecords::Record* record) {
  const uint32_t last = record->old_seq;
  if (sequence > last) {
    if (last != kNoneYet) record->drop_count += sequence - 1 - last;
    record->old_seq = sequence;
    return;
  }
  const bool turned = (last == kNoneYet && sequence == 0) || last - sequence > kFarthestBack;
  if (turned) {
    record->old_seq = sequence;
  } else {
    ++record->oop_count;
  }
}

}  // namespace

void NodeRecords::Take(const std::string& node, uint32_t sequence, uint32_t events) {
  const std::lock_guard lock(mutex_);
  auto found = records_.find(node);
  if (found == records_.end()) {
    if (records_.size() >= kMostNodes) {
      ZLOG_DEBUG("No record for node %s, there are %zu", node.c_str(), records_.size());
      return;
    }
    found = records_.emplace(node, Record()).first;
  }
  TakeSequence(sequence, &found->second);
  found->second.rcv_count += events;
}

std::vector<std::pair<std::string, NodeRecords::Record>> NodeRecords::All() const {
  const std::lock_guard lock(mutex_);
  return {records_.begin(), records_.end()};
}

void NodeRecords::Clear() {
  const std::lock_guard lock(mutex_);
  records_.clear();
}

NodeRecords& NodeRecords::Process() {
  static auto& records = *new NodeRecords();
  return records;
}

}  // namespace IdsEvtEng
