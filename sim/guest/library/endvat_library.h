#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/core/stop_signal.h"
#include "platform/endvat/endvat.h"
#include "sim/guest/library/world_link.h"

namespace zem::sim::guest {

class CallbackWorker;

/// The guest event library: the calls of platform/endvat/endvat.h, as operations of an object.
///
/// Threads: as of the library.
class EndvatLibrary {
 public:
  /// Makes the link when the library is initialised; `port` is the value of "EndvatPort".
  using MakeLink = std::function<std::unique_ptr<WorldLink>(const std::string& port, uint32_t timeout_ms)>;

  struct Handlers {
    ENDVAT_VM_HANDLER vm = nullptr;
    ENDVAT_NETWORK_HANDLER network = nullptr;
    ENDVAT_SYSTEM_HANDLER system = nullptr;
    ENDVAT_TIMER_HANDLER timer = nullptr;
    ENDVAT_MUX_HANDLER mux = nullptr;
    ENDVAT_ERROR_HANDLER error = nullptr;
    ENDVAT_PANIC_HANDLER panic = nullptr;
  };

  explicit EndvatLibrary(MakeLink make_link);
  ~EndvatLibrary();
  EndvatLibrary(const EndvatLibrary&) = delete;
  EndvatLibrary& operator=(const EndvatLibrary&) = delete;

  ENDVAT_STATUS Init(uint32_t version, const char* const* keys, const char* const* values,
                     ENDVAT_LIB_INFO* out);
  template <class Handler>
  ENDVAT_STATUS Register(Handler Handlers::*member, Handler handler) {
    std::lock_guard lock(mutex_);
    if (const ENDVAT_STATUS status = MayRegisterLocked(handler != nullptr); status != 0) return status;
    if (handlers_.*member != nullptr) return ENDVAT_ERROR_ALREADY_SET;
    handlers_.*member = handler;
    return ENDVAT_SUCCESS;
  }
  ENDVAT_STATUS EnableCallbacks();
  ENDVAT_STATUS Unload();

  /// What a question needs besides its own fields.
  enum class Needs {
    kGuest,         // any callback of a guest
    kEvent,         // the callback of that handle
    kNetworkEvent,  // the same, and a network event
    kServiceVm,     // a multiplexer event about a service VM
    kHealth,        // a health report has been announced
  };
  /// Asks and copies the answer to the caller's buffer by the rule of the two calls.
  ENDVAT_STATUS Query(Needs needs, ENDVAT_HANDLE handle, Question question, void* buffer, uint32_t* length);
  ENDVAT_STATUS SetData(ENDVAT_HANDLE handle, void* data);
  ENDVAT_STATUS GetMask(uint64_t* mask);
  ENDVAT_STATUS SetMask(uint64_t mask);
  ENDVAT_STATUS ConfigureMux(const void* buffer, uint32_t length);

 private:
  friend class CallbackWorker;
  enum class State { kNew, kInitialized, kEnabled, kUnloaded };

  ENDVAT_STATUS MayRegisterLocked(bool handler_given) const;
  ENDVAT_STATUS Usable() const;
  ENDVAT_STATUS CheckContext(Needs needs, ENDVAT_HANDLE handle, Question* question);
  void Take(const Event& event);
  void Violation(const std::string& text);
  /// Waits as long as the answer is to be held back.  False when the caller's patience ends first.
  bool HoldBack(uint32_t delay_ms);

  const MakeLink make_link_;
  mutable std::mutex mutex_;  // guards handlers_ and the changes of state_
  std::atomic<State> state_{State::kNew};
  Handlers handlers_;
  uint32_t worker_count_ = 0;
  uint32_t most_undelivered_ = 0;
  uint32_t timeout_ms_ = 10000;
  std::unique_ptr<WorldLink> link_;
  std::vector<std::unique_ptr<CallbackWorker>> workers_;  // the last one has the multiplexer's events
  std::atomic<uint64_t> last_handle_{0};
  std::atomic<bool> health_announced_{false};
  StopSignal stop_;
};

}  // namespace zem::sim::guest
