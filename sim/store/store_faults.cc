#include "sim/store/store_faults.h"

#include <google/protobuf/message.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "platform/provider/provider.h"
#include "platform/provider/timer.h"

namespace zem::sim {
namespace {

void CheckMethod(const std::string& method) {
  if (std::find(kStoreCalls.begin(), kStoreCalls.end(), method) == kStoreCalls.end()) {
    throw std::invalid_argument("the store has no call \"" + method + "\"");
  }
}

}  // namespace

StoreFaults::StoreFaults(AsioZemProvider& provider) : provider_(provider), state_(std::make_shared<State>()) {
  for (const std::string_view method : kStoreCalls) state_->faults[std::string(method)];
}

void StoreFaults::SetStatus(const std::string& method, int code, int count) {
  CheckMethod(method);
  const std::lock_guard lock(state_->mutex);
  state_->faults[method].code = code;
  state_->faults[method].count = code == 0 ? 0 : count;
}

void StoreFaults::SetDelay(const std::string& method, Duration delay) {
  CheckMethod(method);
  const std::lock_guard lock(state_->mutex);
  state_->faults[method].delay = delay;
}

void StoreFaults::SetGarbage(const std::string& method, int count) {
  CheckMethod(method);
  const std::lock_guard lock(state_->mutex);
  state_->faults[method].garbage = count;
}

void StoreFaults::SetFrozen(bool frozen) {
  std::vector<Waiting> waiting;
  {
    const std::lock_guard lock(state_->mutex);
    state_->frozen = frozen;
    if (!frozen) waiting.swap(state_->waiting);
  }
  for (Waiting& call : waiting) {
    provider_.dispatcher().Post(
        [state = state_, call = std::move(call)] { Enter(state, call.method, call.serve); });
  }
}

void StoreFaults::DropWaiting() {
  std::vector<Waiting> waiting;  // destroyed after the lock is released
  const std::lock_guard lock(state_->mutex);
  waiting.swap(state_->waiting);
}

void StoreFaults::Clear() {
  {
    const std::lock_guard lock(state_->mutex);
    for (auto& [method, fault] : state_->faults) {
      const Fault seen = std::exchange(fault, Fault());
      fault.calls = seen.calls;
      fault.failed = seen.failed;
    }
  }
  SetFrozen(false);
}

bool StoreFaults::PassAtOnce(std::string_view method) {
  const std::lock_guard lock(state_->mutex);
  Fault& fault = state_->faults.find(method)->second;
  if (state_->frozen || fault.delay > Duration::zero() || fault.count != 0) return false;
  ++fault.calls;
  return true;
}

void StoreFaults::Pass(std::string_view method, std::function<void(int)> serve) {
  Duration delay{};
  {
    const std::lock_guard lock(state_->mutex);
    delay = state_->faults.find(method)->second.delay;
  }
  if (delay <= Duration::zero()) return Enter(state_, std::string(method), std::move(serve));
  provider_.timers().Schedule(delay, [state = state_, method = std::string(method),
                                      serve = std::move(serve)] { Enter(state, method, serve); });
}

void StoreFaults::Enter(const std::shared_ptr<State>& state, const std::string& method,
                        std::function<void(int)> serve) {
  int code = 0;
  {
    const std::lock_guard lock(state->mutex);
    if (state->frozen) {
      state->waiting.push_back({method, std::move(serve)});
      return;
    }
    Fault& fault = state->faults[method];
    ++fault.calls;
    if (fault.count != 0) {
      code = fault.code;
      ++fault.failed;
      if (fault.count > 0) --fault.count;
    }
  }
  serve(code);
}

bool StoreFaults::TakeGarbage(std::string_view method) {
  const std::lock_guard lock(state_->mutex);
  Fault& fault = state_->faults.find(method)->second;
  if (fault.garbage <= 0) return false;
  --fault.garbage;
  return true;
}

void StoreFaults::KeepRequests(size_t count) {
  const std::lock_guard lock(state_->mutex);
  kept_ = count;
  for (auto& [method, requests] : state_->requests) {
    while (requests.size() > count) requests.pop_front();
  }
}

void StoreFaults::NoteRequest(std::string_view method, const google::protobuf::Message& request) {
  if (kept_ == 0) return;
  std::string text = request.ShortDebugString();
  const std::lock_guard lock(state_->mutex);
  std::deque<std::string>& requests = state_->requests[std::string(method)];
  requests.push_back(std::move(text));
  while (requests.size() > kept_) requests.pop_front();
}

std::vector<std::string> StoreFaults::Requests(const std::string& method, size_t count) const {
  CheckMethod(method);
  const std::lock_guard lock(state_->mutex);
  const auto found = state_->requests.find(method);
  if (found == state_->requests.end()) return {};
  const auto& all = found->second;
  return {all.end() - static_cast<ptrdiff_t>(std::min(count, all.size())), all.end()};
}

std::vector<StoreFaults::Seen> StoreFaults::Calls() const {
  const std::lock_guard lock(state_->mutex);
  std::vector<Seen> seen;
  for (const auto& [method, fault] : state_->faults) seen.push_back({method, fault.calls, fault.failed});
  return seen;
}

}  // namespace zem::sim
