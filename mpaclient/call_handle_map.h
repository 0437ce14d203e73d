#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/core/clock.h"
#include "platform/rpc/call.h"

namespace orlane::zem::messaging {
class GenericUnifiedMsg;
}

namespace zem {

/// The manager's requests by correlation id, each with the moment it came.
///
/// An id is taken as long as its call runs.  When the call has ended, the handle goes at once and the id
/// stays only to tell an answer that comes late from one that nobody asked for; a new request may take it.
///
/// Threads: all operations from any thread.
class CallHandleMap {
 public:
  using Handle = rpc::CallHandle<orlane::zem::messaging::GenericUnifiedMsg>;

  struct Call {
    Handle handle;  // empty when the call has ended
    bool ended = false;
  };

  /// The entry's number, for `Ended`; nothing, and nothing changes, when the id has a running call.
  [[nodiscard]] std::optional<uint64_t> Add(const std::string& correlation_id, Handle handle);
  /// The call of that entry has ended.
  void Ended(const std::string& correlation_id, uint64_t number);
  /// Whether the id has a running call.
  bool Contains(const std::string& correlation_id) const;
  /// Takes the request out; nothing when there is none.
  std::optional<Call> Take(const std::string& correlation_id);
  /// Forgets requests older than `age`; gives their ids.
  std::vector<std::string> TakeOlderThan(Duration age);
  void Clear();
  /// Requests whose call runs.
  size_t size() const;

 private:
  struct Entry {
    Call call;
    TimePoint since;
    uint64_t number = 0;
  };

  mutable std::shared_mutex mutex_;  // guards all below
  std::unordered_map<std::string, Entry> entries_;
  uint64_t last_number_ = 0;
};

}  // namespace zem
