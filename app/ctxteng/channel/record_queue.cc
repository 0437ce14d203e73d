#include "app/ctxteng/channel/record_queue.h"

#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

}  // namespace

bool RecordQueue::Push(Record record) {
  size_t size = 0;
  {
    std::lock_guard lock(mutex_);
    if (queue_.size() < kCapacity) {
      queue_.push_back(std::move(record));
      size = queue_.size();
    }
    changed_.NotifyAll();
  }
  if (size == 0) {
    ZLOG_ERROR("OPS00002", "Message queue is full, not adding new message.");
    return false;
  }
  Added(size);
  return true;
}

void RecordQueue::PushLocal(Record record) {
  size_t size = 0;
  {
    std::lock_guard lock(mutex_);
    queue_.push_back(std::move(record));
    size = queue_.size();
    changed_.NotifyAll();
  }
  Added(size);
}

void RecordQueue::Added(size_t size) { ZLOG_DEBUG("Message added to queue. New size is [%zu].", size); }

RecordQueue::Record RecordQueue::Pop(const std::function<bool()>& ended) {
  Record record;
  size_t left = 0;
  {
    std::unique_lock lock(mutex_);
    if (queue_.empty()) {
      // Logged without the lock: a writer never waits for the log.
      lock.unlock();
      ZLOG_DEBUG("Waiting. Queue is empty.");
      lock.lock();
    }
    changed_.Wait(lock, [&] { return !queue_.empty() || ended(); });
    if (queue_.empty()) return nullptr;
    record = std::move(queue_.front());
    queue_.pop_front();
    left = queue_.size();
  }
  ZLOG_DEBUG("Message removed from queue. New size is [%zu].", left);
  return record;
}

void RecordQueue::Wake() {
  std::lock_guard lock(mutex_);
  changed_.NotifyAll();
}

size_t RecordQueue::size() const {
  std::lock_guard lock(mutex_);
  return queue_.size();
}

}  // namespace Ctxt
