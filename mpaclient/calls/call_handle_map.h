#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/core/clock.h"
#include "platform/rpc/call.h"

namespace orlane::zem::messaging {
class GenericUnifiedMsg;
}

namespace zem {

/// The manager's requests that one vertical has not answered yet, by correlation id.
///
/// An id is taken as long as its call runs.  When the call has ended, the handle goes at once and the id
/// stays only to distinguish an answer that comes late from one that nobody asked for; a new request may take
/// the id.
///
/// Threads: all operations from any thread.
class CallHandleMap {
 public:
  using Handle = rpc::CallHandle<orlane::zem::messaging::GenericUnifiedMsg>;

  struct Call {
    Handle handle;  // empty when the call has ended
    bool ended = false;
  };

  explicit CallHandleMap(std::string app_type) : app_type_(std::move(app_type)) {}

  /// Returns a number that distinguishes this request from later ones with its id.  Returns nothing, after a
  /// log line, when the id has a running call; nothing changes then.
  [[nodiscard]] std::optional<uint64_t> AddToCallHandleMap(const std::string& correlation_id, Handle handle);
  /// Marks the call of that request as ended, answered or not: its id is free again.
  void CallEnded(const std::string& correlation_id, uint64_t number);
  /// Removes the request and returns it; nothing when there is none.
  std::optional<Call> Take(const std::string& correlation_id);
  void PurgeCallHandleMap();
  /// Removes and logs the requests that are older than 300 seconds.
  void PurgeStaleCallHandles();

 private:
  struct Entry {
    Call call;
    TimePoint since;
    uint64_t number = 0;
  };

  const std::string app_type_;
  mutable std::mutex mutex_;  // guards all below
  std::unordered_map<std::string, Entry> entries_;
  uint64_t last_number_ = 0;
};

}  // namespace zem
