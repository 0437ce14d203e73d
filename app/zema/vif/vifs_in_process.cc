#include "app/zema/vif/vifs_in_process.h"

#include "framework/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kStart = "processVifRequestStart";

constexpr int kChecks = 31;
constexpr Duration kBetween = std::chrono::seconds(1);

}  // namespace

bool VifsInProcess::Enter(const std::string& vif, bool wait) {
  std::unique_lock lock(mutex_);
  const auto free = [&] { return ended_ || !vifs_.contains(vif); };
  for (int check = 1; !free(); ++check) {
    if (!wait) {
      ZLOG_INFO("[%s] vif:[%s] is in process already", kStart, vif.c_str());
      return false;
    }
    if (check == kChecks) {
      ZLOG_ERROR("42002", "[%s] vif:[%s] waited too long to proceed. Aborting now", kStart, vif.c_str());
      return false;
    }
    ZLOG_INFO("[%s] vif:[%s] Sleep waiting for previous operation to complete", kStart, vif.c_str());
    left_.WaitFor(lock, kBetween, free);
  }
  if (ended_) return false;
  vifs_.insert(vif);
  ZLOG_INFO("[%s] vif:[%s] inserted in queue", kStart, vif.c_str());
  return true;
}

void VifsInProcess::Leave(const std::string& vif) {
  const std::lock_guard lock(mutex_);
  vifs_.erase(vif);
  ZLOG_INFO("[%s] vif:[%s] cleared from vifsInProcess", "removeVifFromCache", vif.c_str());
  left_.NotifyAll();
}

void VifsInProcess::EndWaits() {
  const std::lock_guard lock(mutex_);
  ended_ = true;
  left_.NotifyAll();
}

}  // namespace zem::zema
