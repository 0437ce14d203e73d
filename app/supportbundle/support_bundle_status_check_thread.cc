#include "app/supportbundle/support_bundle_status_check_thread.h"

#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "supportbundle"};

constexpr auto kPeriod = std::chrono::seconds(5);
constexpr std::chrono::duration<double> kPatience{3000.0};

}  // namespace

void SupportBundleStatusCheckThread::Run() {
  ZLOG_INFO("Support bundle status thread started");
  const LoopThread loop("sbundle:status", LoopKind::kWorker);
  while (!stop_.WaitFor(kPeriod)) Look();
}

void SupportBundleStatusCheckThread::Look() {
  const LoopStep step("look at the request");
  LockWorkerInfo info(info_);
  if (!IsInProgress(info.state()) || info.state() == BundleStatus::kBeingCancelled) return;
  if (info.SinceContact() <= kPatience) return;
  ZLOG_INFO("No status message received within last %f seconds, canceling active request", kPatience.count());
  // The worker takes none but a requested one: that would be cancelled by nobody.
  if (info.state() == BundleStatus::kRequested) {
    info.SetState(BundleStatus::kCancelled);
    info.request().WipePassword();
  } else {
    info.SetState(BundleStatus::kBeingCancelled);
  }
}

}  // namespace zem::Tarvik
