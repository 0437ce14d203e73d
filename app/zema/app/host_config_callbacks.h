#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>

namespace orlane::zem::switching {
class HostConfigMsg;
}

namespace zem::zema {

/// The callbacks of modules in this process that need to see each host configuration in force.
///
/// Threads: all operations from any thread; the callbacks run in the caller's, without a lock held.
class HostConfigCallbacks {
 public:
  using Callback = std::function<void(const orlane::zem::switching::HostConfigMsg&)>;

  /// A second callback of the same module is refused with a log line.
  void Register(uint32_t module_id, Callback callback);

  /// Calls the callback of every module, in order of the module ids.
  void Call(const orlane::zem::switching::HostConfigMsg& config);

 private:
  std::mutex mutex_;  // guards callbacks_
  std::map<uint32_t, Callback> callbacks_;
};

}  // namespace zem::zema
