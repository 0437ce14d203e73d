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

/// The manager's open requests by correlation id, each with the moment it came.
///
/// Threads: all operations from any thread.
class CallHandleMap {
 public:
  using Handle = rpc::CallHandle<orlane::zem::messaging::GenericUnifiedMsg>;

  /// False, and nothing changes, when the id has an open request.
  [[nodiscard]] bool Add(const std::string& correlation_id, Handle handle);
  bool Contains(const std::string& correlation_id) const;
  /// Takes the request out; nothing when there is none.
  std::optional<Handle> Take(const std::string& correlation_id);
  /// Forgets requests older than `age`; gives their ids.
  std::vector<std::string> TakeOlderThan(Duration age);
  void Clear();
  size_t size() const;

 private:
  struct Entry {
    Handle handle;
    TimePoint since;
  };

  mutable std::shared_mutex mutex_;  // guards entries_
  std::unordered_map<std::string, Entry> entries_;
};

}  // namespace zem
