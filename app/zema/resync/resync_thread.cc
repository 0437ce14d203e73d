#include "app/zema/resync/resync_thread.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <limits>

#include "app/zema/state/health_record.h"
#include "app/zema/vifqueue/resync_state.h"
#include "framework/log/log.h"
#include "framework/node/host_identity.h"
#include "framework/process/util.h"
#include "framework/tasks/exception.h"
#include "framework/tasks/thread_log_context.h"
#include "platform/core/poll.h"
#include "platform/core/thread_name.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "ResyncThread";

constexpr Duration kHostIdLook = std::chrono::seconds(5);
constexpr Duration kPauseAfterFailure = std::chrono::seconds(30);

constexpr const char* kSimulated = "enabled";  // `scaleSimulation.state`

constexpr char kManagerCame = 'r';
constexpr char kAllowedAgain = 'a';

int IntervalOf(const RealizationOptions& options) {
  if (options.resync_interval >= 1) return options.resync_interval;
  ZLOG_ERROR("42069", "[%s] Resync interval provided is <= 0, setting interval as default [%d]", kTag,
             ResyncThread::kDefaultInterval);
  return ResyncThread::kDefaultInterval;
}

// How far back a look at the VMs goes.
int VmCheckInterval(int frequency, int interval) {
  const int64_t span = int64_t{frequency} * interval;
  if (span <= 0) return ResyncThread::kDefaultInterval;
  return static_cast<int>(std::min<int64_t>(span, std::numeric_limits<int>::max()));
}

// A round, as the handlers see it.
class InProgress {
 public:
  explicit InProgress(ResyncState& state) : state_(state) {
    ZLOG_INFO("[%s] Setting resyncInProgress %d flag", kTag, 1);
    state_.Begin();
  }
  ~InProgress() {
    ZLOG_INFO("[%s]  Resetting resyncInProgress %d flag ", kTag, 0);
    state_.End();
  }
  InProgress(const InProgress&) = delete;
  InProgress& operator=(const InProgress&) = delete;

 private:
  ResyncState& state_;
};

}  // namespace

ResyncThread::ResyncThread(Settings settings, VifHandler& vif_handler)
    : Thread(true, nullptr, 0),
      settings_(std::move(settings)),
      stop_event_(::eventfd(0, EFD_CLOEXEC)),
      round_({settings_.health, settings_.host, settings_.state, &vif_handler,
              [this](const std::string& command, Duration limit, std::string* output, std::string* error) {
                return Shell(command, limit, output, error);
              },
              [this] { return MayGoOn(); }}) {
  if (!stop_event_) throw Exception("eventfd", errno);
}

ResyncThread::~ResyncThread() { StopAndJoin(); }

void ResyncThread::Stop() {
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  const uint64_t one = 1;
  if (::write(stop_event_.get(), &one, sizeof(one)) != sizeof(one)) {
    ZLOG_WARN("[%s] the stop was not told: %s", kTag, std::strerror(errno));
  }
}

bool ResyncThread::stopped() {
  const std::lock_guard lock(mutex_);
  return stopped_;
}

void ResyncThread::Allow(bool allowed) {
  const std::lock_guard lock(mutex_);
  allowed_ = allowed;
  if (!allowed || !missed_ || !write_end_) return;
  missed_ = false;
  if (::write(write_end_.get(), &kAllowedAgain, 1) != 1) {
    ZLOG_WARN("[%s] the missed round comes with the next: %s", kTag, std::strerror(errno));
  }
}

bool ResyncThread::Wanted() const { return settings_.options().scale_simulation_state != kSimulated; }

bool ResyncThread::MayGoOn() {
  const bool disabled = settings_.options().resync_disabled;
  const std::lock_guard lock(mutex_);
  if (!allowed_ && !disabled) missed_ = true;
  return allowed_ && !disabled && !stopped_;
}

void ResyncThread::Run() {
  SetThreadLogContext(kTag);
  ZLOG_INFO("[%s] Resync thread [%ld] started, waiting for host-id to be set...\n", kTag,
            static_cast<long>(ThreadId()));
  SetThreadName("zema:GetHstId");
  const bool known = AwaitHostId();
  ZLOG_INFO("[%s] Resync thread running out of wait...\n", kTag);
  if (known && AwaitPipe()) {
    SetThreadName("zema:Resync");
    while (!stopped()) {
      const int sleep = Round();
      WaitBeforeNextCheck(sleep);
    }
    ClosePipe();
  }
  ZLOG_INFO("[%s] MP synchronizing thread [%ld] stopped \n", kTag, static_cast<long>(ThreadId()));
}

bool ResyncThread::AwaitHostId() {
  while (!settings_.host->id()) {
    if (WaitForStop(kHostIdLook)) return false;
  }
  return !stopped();
}

// Descriptors that run out come back.
bool ResyncThread::AwaitPipe() {
  while (!OpenPipe()) {
    if (WaitForStop(kPauseAfterFailure)) return false;
  }
  return true;
}

bool ResyncThread::OpenPipe() {
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
    ClosePipe();
    return false;
  }
  settings_.health->setResyncFd(published.Release());
  return true;
}

void ResyncThread::ClosePipe() {
  settings_.health->setResyncFd(-1);
  const std::lock_guard lock(mutex_);
  write_end_.Reset();
  read_end_.Reset();
}

// The seconds until the next one.
int ResyncThread::Round() {
  const RealizationOptions options = settings_.options();
  ZLOG_INFO("[%s] Resync vmCheckFrequency:%d iterations", kTag, options.resync_vm_check_frequency);
  ZLOG_INFO("[%s] Resync interval: %d secs", kTag, options.resync_interval);
  const int interval = IntervalOf(options);
  if (!MayGoOn()) {
    if (!stopped()) {
      ZLOG_INFO("[%s] resync disabled or not ready; check again after %d sec", kTag, interval);
    }
    return interval;
  }
  const InProgress in_progress(*settings_.state);
  Compare(options, interval);
  return NextSleep(interval);
}

void ResyncThread::Compare(const RealizationOptions& options, int interval) {
  ++rounds_;
  const bool vm_check = fast_resync_interval_ < 1 && rounds_ >= options.resync_vm_check_frequency;
  int span = interval;
  if (vm_check) {
    rounds_ = 0;
    span = VmCheckInterval(options.resync_vm_check_frequency, interval);
    ZLOG_INFO("[%s] Resync doing VM check", kTag);
  } else {
    ZLOG_INFO("[%s] Resync will skip checking VMs, only checking ports", kTag);
  }
  ZLOG_INFO("[%s] synchronizing local vif attachment/detachment to MP ...\n", kTag);
  const TimePoint begin = Clock::Process().Now();
  try {
    settings_.read_ports();
    round_.Resync(span, vm_check, std::max<Duration>(std::chrono::seconds(interval), settings_.script_limit));
  } catch (const std::exception& e) {
    ZLOG_ERROR("42044", "[%s] resync caught exception: %s\n", kTag, e.what());
  } catch (...) {
    ZLOG_ERROR("42044", "[%s] resync caught Unknown Exception\n", kTag);
  }
  ZLOG_INFO("[%s] resync of vif attachment/detachment to MP, took [%ld] sec\n", kTag,
            static_cast<long>((Clock::Process().Now() - begin) / std::chrono::seconds(1)));
}

int ResyncThread::NextSleep(int interval) {
  if (fast_resync_interval_ < 1) {
    ZLOG_INFO("[%s] next synchronization in [%d] sec...\n", kTag, interval);
    return interval;
  }
  // It stays below the interval, so the doubled one fits.
  const int64_t doubled = int64_t{fast_resync_interval_} * 2;
  if (interval > doubled * 2) {
    fast_resync_interval_ = static_cast<int>(doubled);
    const int sleep = static_cast<int>(doubled * 2);
    ZLOG_INFO("[%s] In Fast Resync. Interval:%d selectSleepInterval:%d", kTag, interval, sleep);
    return sleep;
  }
  fast_resync_interval_ = -1;
  ZLOG_INFO("[%s] Going back to normal resync interval:%d selectSleepInterval:%d", kTag, interval, interval);
  return interval;
}

void ResyncThread::WaitBeforeNextCheck(int seconds) {
  const TimePoint due = Clock::Process().Now() + std::chrono::seconds(seconds);
  pollfd waits[2] = {{read_end_.get(), POLLIN, 0}, {stop_event_.get(), POLLIN, 0}};
  int ready = -1;
  do {
    ready = PollUntil(waits, 2, due);
  } while (ready < 0 && errno == EINTR);
  if (ready < 0) {
    ZLOG_ERROR("41017", "[%s] select failed sleep 30 sec: [%s], fd:[%d][%d]\n", kTag, std::strerror(errno),
               waits[0].fd, waits[1].fd);
    WaitForStop(kPauseAfterFailure);
    return;
  }
  char byte = 0;
  if (waits[0].revents == 0 || ::read(read_end_.get(), &byte, 1) != 1) return;
  if (byte == kManagerCame) {
    fast_resync_interval_ = 1;
    ZLOG_INFO("[%s] Resync woken up before timeout by mpa reconnect...\n", kTag);
  } else {
    ZLOG_INFO("[%s] Resync woken up before timeout. Not MPA reconnect!\n", kTag);
  }
}

bool ResyncThread::WaitForStop(Duration duration) {
  const TimePoint due = Clock::Process().Now() + duration;
  pollfd wait{stop_event_.get(), POLLIN, 0};
  while (PollUntil(&wait, 1, due) < 0 && errno == EINTR) {
  }
  return stopped();
}

int ResyncThread::Shell(const std::string& command, Duration limit, std::string* output, std::string* error) {
  if (settings_.command) return settings_.command(command, output);
  return Tarvik::Util::ReadCmdOutput(command, output, error, {limit, stop_event_.get()});
}

}  // namespace zem::zema
