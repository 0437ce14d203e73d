#pragma once

#include <mutex>

#include "app/zema/hostconfig/follow_up_tasks.h"
#include "platform/core/condition.h"

namespace zem::zema {

class CorvdHandler;

/// What this host does after a configuration: waits for the host management daemon.  The rest is as by
/// default.
///
/// Threads: SetHostManagement by the owner, the rest the host configuration's.
class FollowUps final : public FollowUpTasks {
 public:
  /// Null when it goes: it is told to stop, and nobody waits for it any more when this returns.
  void SetHostManagement(CorvdHandler* handler);

  void WaitForHostManagement(int seconds) override;

 private:
  std::mutex mutex_;  // guards what follows
  Condition left_;
  CorvdHandler* handler_ = nullptr;
  int waiting_ = 0;
};

}  // namespace zem::zema
