#include "app/zema/resync/resync_thread.h"

#include <algorithm>
#include <exception>
#include <limits>

#include "app/zema/ports/vif_holders.h"
#include "app/zema/state/health_record.h"
#include "app/zema/state/realization_options.h"
#include "app/zema/vifqueue/resync_state.h"
#include "framework/log/log.h"
#include "framework/node/host_identity.h"
#include "framework/tasks/thread_log_context.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/thread_name.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "ResyncThread";

constexpr Duration kHostIdLook = std::chrono::seconds(5);
constexpr Duration kPauseAfterFailure = std::chrono::seconds(30);

constexpr const char* kSimulated = "enabled";  // `scaleSimulation.state`

int IntervalOf(const RealizationOptions& options) {
  if (options.resync_interval >= 1) return options.resync_interval;
  ZLOG_ERROR("42069", "[%s] Resync interval provided is <= 0, setting interval as default [%d]", kTag,
             ResyncThread::kDefaultInterval);
  return ResyncThread::kDefaultInterval;
}

// How many seconds of VM history a round with a VM check examines.
int VmCheckInterval(int frequency, int interval) {
  const int64_t span = int64_t{frequency} * interval;
  if (span <= 0) return ResyncThread::kDefaultInterval;
  return static_cast<int>(std::min<int64_t>(span, std::numeric_limits<int>::max()));
}

// Marks a round as running, for the port handlers.
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
      gate_(*settings_.options),
      round_(settings_, vif_handler, gate_) {}

ResyncThread::~ResyncThread() { StopAndJoin(); }

void ResyncThread::Stop() { gate_.Stop(); }

void ResyncThread::Allow(bool allowed) { gate_.Allow(allowed); }

bool ResyncThread::Wanted() const {
  return settings_.options->Snapshot().scale_simulation_state != kSimulated;
}

void ResyncThread::Run() {
  const LoopThread loop("resync", LoopKind::kWorker);
  SetThreadLogContext(kTag);
  ZLOG_INFO("[%s] Resync thread [%ld] started, waiting for host-id to be set...\n", kTag,
            static_cast<long>(ThreadId()));
  SetThreadName("zema:GetHstId");
  const bool known = AwaitHostId();
  ZLOG_INFO("[%s] Resync thread running out of wait...\n", kTag);
  if (known && AwaitPipe()) {
    SetThreadName("zema:Resync");
    while (!gate_.stopped()) {
      const int sleep = Round();
      WaitBeforeNextCheck(sleep);
    }
    gate_.ClosePipe(*settings_.health);
  }
  ZLOG_INFO("[%s] MP synchronizing thread [%ld] stopped \n", kTag, static_cast<long>(ThreadId()));
}

bool ResyncThread::AwaitHostId() {
  while (!settings_.host->id()) {
    if (gate_.WaitForStop(kHostIdLook)) return false;
  }
  return !gate_.stopped();
}

// Running out of descriptors is temporary, so the pipe is tried again.
bool ResyncThread::AwaitPipe() {
  while (!gate_.OpenPipe(*settings_.health)) {
    if (gate_.WaitForStop(kPauseAfterFailure)) return false;
  }
  return true;
}

// Runs a round; returns the seconds until the next one.
int ResyncThread::Round() {
  const LoopStep step("round");
  const RealizationOptions options = settings_.options->Snapshot();
  ZLOG_INFO("[%s] Resync vmCheckFrequency:%d iterations", kTag, options.resync_vm_check_frequency);
  ZLOG_INFO("[%s] Resync interval: %d secs", kTag, options.resync_interval);
  const int interval = IntervalOf(options);
  if (!gate_.MayGoOn()) {
    if (!gate_.stopped()) {
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
    settings_.ports->RefreshVifIndex();
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
  // The value stays below the interval, so doubling it cannot overflow.
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
  switch (gate_.WaitFor(std::chrono::seconds(seconds))) {
    case ResyncGate::Wake::kManagerCame:
      fast_resync_interval_ = 1;
      ZLOG_INFO("[%s] Resync woken up before timeout by mpa reconnect...\n", kTag);
      break;
    case ResyncGate::Wake::kAllowedAgain:
      ZLOG_INFO("[%s] Resync woken up before timeout. Not MPA reconnect!\n", kTag);
      break;
    case ResyncGate::Wake::kFailed:
      gate_.WaitForStop(kPauseAfterFailure);
      break;
    case ResyncGate::Wake::kTime:
      break;
  }
}

}  // namespace zem::zema
