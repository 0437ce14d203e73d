#include "app/zema/resync/resync_gate.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "app/zema/state/health_record.h"
#include "app/zema/state/realization_options.h"
#include "framework/log/log.h"
#include "framework/tasks/exception.h"
#include "platform/core/poll.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "ResyncThread";

constexpr char kManagerCame = 'r';
constexpr char kAllowedAgain = 'a';

}  // namespace

ResyncGate::ResyncGate(OptionsStore& options) : options_(options), stop_event_(::eventfd(0, EFD_CLOEXEC)) {
  if (!stop_event_) throw Exception("eventfd", errno);
}

void ResyncGate::Stop() {
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  const uint64_t one = 1;
  if (::write(stop_event_.get(), &one, sizeof(one)) != sizeof(one)) {
    ZLOG_WARN("[%s] the stop was not told: %s", kTag, std::strerror(errno));
  }
}

bool ResyncGate::stopped() {
  const std::lock_guard lock(mutex_);
  return stopped_;
}

void ResyncGate::Allow(bool allowed) {
  const std::lock_guard lock(mutex_);
  allowed_ = allowed;
  if (!allowed || !missed_ || !write_end_) return;
  missed_ = false;
  if (::write(write_end_.get(), &kAllowedAgain, 1) != 1) {
    ZLOG_WARN("[%s] the missed round comes with the next: %s", kTag, std::strerror(errno));
  }
}

bool ResyncGate::MayGoOn() {
  const bool disabled = options_.Snapshot().resync_disabled;
  const std::lock_guard lock(mutex_);
  if (!allowed_ && !disabled) missed_ = true;
  return allowed_ && !disabled && !stopped_;
}

bool ResyncGate::OpenPipe(HealthRecord& health) {
  int ends[2];
  // Whoever writes must not wait for a round to end.
  if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
    ZLOG_ERROR("42039", "[%s] Error creating Resync Pipe", kTag);
    return false;
  }
  read_end_ = UniqueFd(ends[0]);
  UniqueFd published(::fcntl(ends[1], F_DUPFD_CLOEXEC, 0));
  {
    const std::lock_guard lock(mutex_);
    write_end_ = UniqueFd(ends[1]);
  }
  if (!published) {
    ZLOG_ERROR("42039", "[%s] Error creating Resync Pipe", kTag);
    ClosePipe(health);
    return false;
  }
  health.setResyncFd(published.Release());
  return true;
}

void ResyncGate::ClosePipe(HealthRecord& health) {
  health.setResyncFd(-1);
  const std::lock_guard lock(mutex_);
  write_end_.Reset();
  read_end_.Reset();
}

ResyncGate::Wake ResyncGate::WaitFor(Duration duration) {
  const TimePoint due = Clock::Process().Now() + duration;
  pollfd waits[2] = {{read_end_.get(), POLLIN, 0}, {stop_event_.get(), POLLIN, 0}};
  int ready = -1;
  do {
    ready = PollUntil(waits, 2, due);
  } while (ready < 0 && errno == EINTR);
  if (ready < 0) {
    ZLOG_ERROR("41017", "[%s] select failed sleep 30 sec: [%s], fd:[%d][%d]\n", kTag, std::strerror(errno),
               waits[0].fd, waits[1].fd);
    return Wake::kFailed;
  }
  char byte = 0;
  if (waits[0].revents == 0 || ::read(read_end_.get(), &byte, 1) != 1) return Wake::kTime;
  return byte == kManagerCame ? Wake::kManagerCame : Wake::kAllowedAgain;
}

bool ResyncGate::WaitForStop(Duration duration) {
  const TimePoint due = Clock::Process().Now() + duration;
  pollfd wait{stop_event_.get(), POLLIN, 0};
  while (PollUntil(&wait, 1, due) < 0 && errno == EINTR) {
  }
  return stopped();
}

}  // namespace zem::zema
