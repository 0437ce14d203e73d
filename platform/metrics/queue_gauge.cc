#include "platform/metrics/queue_gauge.h"

#include <algorithm>
#include <utility>

// Only the moments of entry are kept: in a queue that is first in, first out the oldest of them always
// belongs to the element that leaves, so the queue's elements need not carry their own.

namespace zem {
namespace {

struct AllGauges {
  std::mutex mutex;  // guards all below
  std::vector<const QueueGauge*> gauges;
  // By name, what queues that have gone had dropped: a count that fell would look like a new start.
  std::map<std::string, uint64_t> dropped_before;
};

// Never destroyed: queues of static objects leave it at the very end.
AllGauges& All() {
  static auto* const all = new AllGauges;
  return *all;
}

}  // namespace

QueueGauge::QueueGauge(std::string name, size_t limit) : name_(std::move(name)), limit_(limit) {
  const std::lock_guard lock(All().mutex);
  All().gauges.push_back(this);
}

QueueGauge::~QueueGauge() {
  const std::lock_guard lock(All().mutex);
  std::erase(All().gauges, this);
  if (dropped_ != 0) All().dropped_before[name_] += dropped_;
}

void QueueGauge::Entered() {
  const std::lock_guard lock(mutex_);
  since_.push_back(Clock::Process().Now());
  most_ = std::max(most_, since_.size());
}

void QueueGauge::Left() {
  const std::lock_guard lock(mutex_);
  if (since_.empty()) return;
  longest_wait_ = std::max(longest_wait_, Duration(Clock::Process().Now() - since_.front()));
  since_.pop_front();
}

void QueueGauge::Returned() {
  const std::lock_guard lock(mutex_);
  // Never younger than what waits behind it.
  const TimePoint now = Clock::Process().Now();
  since_.push_front(since_.empty() ? now : std::min(now, since_.front()));
  most_ = std::max(most_, since_.size());
}

void QueueGauge::Refused() {
  const std::lock_guard lock(mutex_);
  ++dropped_;
}

void QueueGauge::Dropped(size_t count) {
  const std::lock_guard lock(mutex_);
  const size_t given_up = std::min(count, since_.size());
  since_.erase(since_.end() - static_cast<std::ptrdiff_t>(given_up), since_.end());
  dropped_ += given_up;
}

size_t QueueGauge::depth() const {
  const std::lock_guard lock(mutex_);
  return since_.size();
}

QueueGauge::Reading QueueGauge::Read() const {
  const std::lock_guard lock(mutex_);
  Reading reading{name_, limit_, since_.size(), most_, longest_wait_, dropped_, Duration::zero()};
  if (!since_.empty()) {
    reading.oldest = Clock::Process().Now() - since_.front();
    reading.longest_wait = std::max(reading.longest_wait, reading.oldest);
  }
  return reading;
}

std::map<std::string, uint64_t> QueueGauge::DroppedBefore() {
  const std::lock_guard lock(All().mutex);
  return All().dropped_before;
}

std::vector<QueueGauge::Reading> QueueGauge::ReadAll() {
  std::vector<Reading> readings;
  const std::lock_guard lock(All().mutex);
  for (const QueueGauge* const gauge : All().gauges) readings.push_back(gauge->Read());
  return readings;
}

}  // namespace zem
