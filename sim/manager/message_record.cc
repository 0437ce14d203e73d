#include "sim/manager/message_record.h"

#include <utility>

namespace zem::sim {
namespace {

// Per kind of message; enough to find which one a host has realized.
constexpr size_t kSentRemembered = 8;

}  // namespace

void MessageRecord::AddReceived(Received received) {
  const std::lock_guard lock(mutex_);
  received.number = ++last_number_;
  received_.push_back(std::move(received));
  if (received_.size() > remembered_) received_.pop_front();
}

void MessageRecord::AddSent(const std::string& member, std::string bytes) {
  const std::lock_guard lock(mutex_);
  std::deque<std::string>& sent = last_sent_[member];
  sent.push_front(std::move(bytes));
  if (sent.size() > kSentRemembered) sent.pop_back();
}

std::vector<Received> MessageRecord::ReceivedFrom(const std::string& vertical, uint64_t after) const {
  std::vector<Received> matching;
  const std::lock_guard lock(mutex_);
  for (const Received& each : received_) {
    if (each.number > after && (vertical.empty() || each.vertical == vertical)) matching.push_back(each);
  }
  return matching;
}

uint64_t MessageRecord::received_count() const {
  const std::lock_guard lock(mutex_);
  return last_number_;
}

std::optional<std::string> MessageRecord::LastSent(const std::string& member, size_t back) const {
  const std::lock_guard lock(mutex_);
  const auto found = last_sent_.find(member);
  if (found == last_sent_.end() || back >= found->second.size()) return std::nullopt;
  return found->second[back];
}

}  // namespace zem::sim
