#include "app/zema/vif/vifs_in_process.h"

#include <algorithm>
#include <utility>

#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kStart = "processVifRequestStart";

constexpr int kChecks = 31;
constexpr Duration kBetween = std::chrono::seconds(1);

}  // namespace

bool VifTurn::Await() { return vifs_->Await(*this); }

void VifTurn::Leave() { vifs_->Leave(*this); }

std::shared_ptr<VifTurn> VifsInProcess::TakeTurn(const std::string& vif) {
  if (vif.empty()) return nullptr;
  const std::lock_guard lock(mutex_);
  return TakeLocked(vif);
}

std::shared_ptr<VifTurn> VifsInProcess::TakeOnlyTurn(const std::string& vif) {
  const std::lock_guard lock(mutex_);
  if (!turns_.contains(vif)) return TakeLocked(vif);
  ZLOG_INFO("[%s] vif:[%s] is in process already", kStart, vif.c_str());
  return nullptr;
}

std::shared_ptr<VifTurn> VifsInProcess::TakeLocked(const std::string& vif) {
  auto turn = std::make_shared<VifTurn>(shared_from_this(), vif, ++last_);
  turns_[vif].push_back(turn->number_);
  return turn;
}

bool VifsInProcess::Await(VifTurn& turn) {
  const char* const vif = turn.vif_.c_str();
  std::unique_lock lock(mutex_);
  // The request is a copy whose operation has ended.
  if (turn.left_) return false;
  const auto mine = [&] { return ended_ || turns_[turn.vif_].front() == turn.number_; };
  for (int check = 1; !mine(); ++check) {
    if (check == kChecks) {
      ZLOG_ERROR("42002", "[%s] vif:[%s] waited too long to proceed. Aborting now", kStart, vif);
      return false;
    }
    ZLOG_INFO("[%s] vif:[%s] Sleep waiting for previous operation to complete", kStart, vif);
    changed_.WaitFor(lock, kBetween, mine);
  }
  if (ended_) return false;
  turn.entered_ = true;
  ZLOG_INFO("[%s] vif:[%s] inserted in queue", kStart, vif);
  return true;
}

void VifsInProcess::Leave(VifTurn& turn) {
  const std::lock_guard lock(mutex_);
  if (std::exchange(turn.left_, true)) return;
  const auto found = turns_.find(turn.vif_);
  std::erase(found->second, turn.number_);
  if (found->second.empty()) turns_.erase(found);
  if (turn.entered_) {
    ZLOG_INFO("[%s] vif:[%s] cleared from vifsInProcess", "removeVifFromCache", turn.vif_.c_str());
  }
  changed_.NotifyAll();
}

void VifsInProcess::EndWaits() {
  const std::lock_guard lock(mutex_);
  ended_ = true;
  changed_.NotifyAll();
}

}  // namespace zem::zema
