#include "platform/core/poll.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/core/unique_fd.h"

namespace zem {
namespace {

constexpr int64_t kLongestMs = 3'600'000;
// Real time; far above what a script of the host takes on a busy machine.
constexpr int kForeignWorkMs = 6'000;
constexpr int kForeignStepMs = 20;

int PollRealUntil(pollfd* descriptors, nfds_t count, TimePoint deadline) {
  for (;;) {
    const Clock& clock = Clock::Process();
    const Duration left = clock.OnMachine(deadline) - clock.OnMachine(clock.Now());
    const int64_t ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    const int ready = PollIdle(descriptors, count, static_cast<int>(std::clamp<int64_t>(ms, 0, kLongestMs)));
    if (ready != 0 || ms <= kLongestMs) return ready;
  }
}

// Ends also when the thread is cancelled in the middle of it.
class Idle {
 public:
  Idle(const pollfd* descriptors, nfds_t count) : watch_(clock_.Watch(descriptors, count)) {
    clock_.EndWork();
  }
  ~Idle() {
    clock_.BeginWork();
    clock_.Unwatch(watch_);
  }
  Idle(const Idle&) = delete;
  Idle& operator=(const Idle&) = delete;

 private:
  Clock& clock_ = Clock::Process();
  const Clock::WatchId watch_;
};

}  // namespace

int PollIdle(pollfd* descriptors, nfds_t count, int timeout_ms) {
  int ready = 0;
  int error = 0;
  {
    const Idle idle(descriptors, count);
    ready = ::poll(descriptors, count, timeout_ms);
    error = errno;
  }
  errno = error;
  return ready;
}

int PollAnswer(pollfd* descriptors, nfds_t count, TimePoint deadline) {
  if (Clock::Process().IsVirtual()) {
    if (const int ready = ::poll(descriptors, count, kForeignWorkMs); ready != 0) return ready;
  }
  return PollUntil(descriptors, count, deadline);
}

void LetOthersWork() {
  if (Clock::Process().IsVirtual()) ::poll(nullptr, 0, kForeignStepMs);
}

// On a virtual clock an alarm writes to a descriptor of its own.  The alarm's work lasts until this thread
// has noticed, so that time stands still in between.
int PollUntil(pollfd* descriptors, nfds_t count, TimePoint deadline) {
  Clock& clock = Clock::Process();
  if (!clock.IsVirtual()) return PollRealUntil(descriptors, count, deadline);
  // What is there already takes no time.
  if (const int ready = ::poll(descriptors, count, 0); ready != 0 || clock.Now() >= deadline) return ready;
  const auto alarm = std::make_shared<UniqueFd>(::eventfd(0, EFD_CLOEXEC));
  if (!*alarm) return -1;
  std::vector<pollfd> waits(descriptors, descriptors + count);
  waits.push_back({alarm->get(), POLLIN, 0});
  const Clock::AlarmId id = clock.SetAlarm(deadline, [&clock, alarm] {
    clock.BeginWork();
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t never_full = ::write(alarm->get(), &one, sizeof(one));
  });
  int ready = PollIdle(waits.data(), waits.size(), -1);
  const int error = errno;
  if (!clock.CancelAlarm(id)) {
    uint64_t rung = 0;
    [[maybe_unused]] const ssize_t there_at_once = ::read(alarm->get(), &rung, sizeof(rung));
    clock.EndWork();
  }
  std::copy_n(waits.begin(), count, descriptors);
  if (ready > 0 && waits.back().revents != 0) --ready;
  errno = error;
  return ready;
}

}  // namespace zem
