#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <utility>

#include "proto/base/base.pb.h"

namespace orlane::zem::monitoring {
class MonitoringSyncResponseMsg;
}

namespace zem::Tarvik {

/// A request of the collector that clients answer.  It is completed once, whichever answer comes first.
class ClientLibMsgCtx {
 public:
  virtual ~ClientLibMsgCtx() = default;

  /// Completes the request without a result; nothing when it is completed.  From any thread.
  virtual void CompleteWithoutResult() = 0;

 protected:
  /// Returns true to the one caller that may complete the request.
  bool Claim() { return !completed_.exchange(true); }

 private:
  std::atomic<bool> completed_ = false;
};

/// A request for everything that clients know.  The clients answer through the event queue, so the request
/// itself is complete when they have been asked.
class FullSyncCtx final : public ClientLibMsgCtx {
 public:
  using Done = std::function<void(const FullSyncCtx& context)>;

  /// `done` may be empty.
  explicit FullSyncCtx(std::string correlation_id = {}, Done done = {})
      : correlation_id_(std::move(correlation_id)), done_(std::move(done)) {}

  void Complete(bool result) {
    if (!Claim()) return;
    result_ = result;
    if (done_) done_(*this);
  }
  void CompleteWithoutResult() override { Complete(false); }

  const std::string& correlation_id() const { return correlation_id_; }
  bool result() const { return result_; }

 private:
  const std::string correlation_id_;
  const Done done_;
  bool result_ = false;
};

/// A request for the state of one instance of one event.
class SyncCtx final : public ClientLibMsgCtx {
 public:
  using Done = std::function<void(const SyncCtx& context)>;

  struct Instance {
    std::string source_id;
    uint32_t feature_id = 0;
    uint32_t event_type_id = 0;
    orlane::zem::UuidMsg entity_id;
  };

  SyncCtx(std::string correlation_id, Instance instance, Done done)
      : correlation_id_(std::move(correlation_id)), instance_(std::move(instance)), done_(std::move(done)) {}

  /// A response without a status is none.
  void Complete(const orlane::zem::monitoring::MonitoringSyncResponseMsg& response);
  void CompleteWithoutResult() override {
    if (Claim()) done_(*this);
  }

  const std::string& correlation_id() const { return correlation_id_; }
  const Instance& instance() const { return instance_; }
  /// What follows is only set with a result.
  bool hasResult() const { return has_result_; }
  uint32_t status() const { return status_; }
  const std::string& context() const { return context_; }

 private:
  const std::string correlation_id_;
  const Instance instance_;
  const Done done_;
  bool has_result_ = false;
  uint32_t status_ = 0;
  std::string context_;
};

}  // namespace zem::Tarvik
