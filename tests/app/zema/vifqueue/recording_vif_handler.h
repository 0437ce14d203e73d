#pragma once

#include <mutex>
#include <set>
#include <stdexcept>
#include <vector>

#include "app/zema/ports/vif_request.h"
#include "app/zema/vifqueue/vif_handler.h"
#include "platform/core/condition.h"

namespace zem::zema {

/// Does what the VIF says: "fail", "throw", "hold" until Release or the end; else the result is the VIF.
class RecordingVifHandler : public VifHandler {
 public:
  void DoVifPortOperation(VifRequest& request, Thread&) override {
    std::unique_lock lock(mutex_);
    served_.push_back(request);
    served_.back().request = nullptr;
    changed_.NotifyAll();
    if (request.vif_id == "hold") {
      ++held_;
      changed_.Wait(lock, [this] { return open_; });
      --held_;
    }
    if (request.vif_id == "throw") throw std::runtime_error("the switch is gone");
    if (request.vif_id == "fail") {
      request.error_text = "refused";
    } else {
      request.result_text = request.vif_id;
    }
  }
  void Arrived(VifRequest& request) override {
    const std::lock_guard lock(mutex_);
    arrived_.push_back(request);
    arrived_.back().request = nullptr;
    changed_.NotifyAll();
  }
  void HostCame() override {}
  void EndWaits() override { Release(); }

  void Release() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.NotifyAll();
  }
  bool WaitUntilServed(size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.WaitFor(lock, std::chrono::seconds(30), [&] { return served_.size() >= count; });
  }
  std::vector<VifRequest> served() {
    const std::lock_guard lock(mutex_);
    return served_;
  }
  bool WaitUntilArrived(size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.WaitFor(lock, std::chrono::seconds(30), [&] { return arrived_.size() >= count; });
  }
  std::vector<VifRequest> arrived() {
    const std::lock_guard lock(mutex_);
    return arrived_;
  }
  int held() {
    const std::lock_guard lock(mutex_);
    return held_;
  }

 private:
  std::mutex mutex_;  // guards what follows
  Condition changed_;
  std::vector<VifRequest> served_;
  std::vector<VifRequest> arrived_;
  int held_ = 0;
  bool open_ = false;
};

}  // namespace zem::zema
