#include "app/ctxteng/idsqueue/pcap_queue.h"

#include "app/ctxteng/idsrecord/ids_event.h"

namespace IdsEvtEng {

PcapQueue::PcapQueue(uint32_t limit) : limit_(limit) {}
PcapQueue::~PcapQueue() = default;

bool PcapQueue::Push(std::unique_ptr<IdsEvent>& notice) {
  const std::lock_guard lock(mutex_);
  if (notices_.size() >= limit_) return false;
  notices_.push_back(std::move(notice));
  ++count_;
  return true;
}

std::unique_ptr<IdsEvent> PcapQueue::Pop() {
  const std::lock_guard lock(mutex_);
  return PopLocked();
}

std::unique_ptr<IdsEvent> PcapQueue::PopOfFull() {
  const std::lock_guard lock(mutex_);
  return notices_.size() >= limit_ ? PopLocked() : nullptr;
}

std::unique_ptr<IdsEvent> PcapQueue::PopLocked() {
  if (notices_.empty()) return nullptr;
  auto oldest = std::move(notices_.front());
  notices_.pop_front();
  --count_;
  return oldest;
}

}  // namespace IdsEvtEng
