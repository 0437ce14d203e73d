#pragma once

#include <deque>
#include <map>
#include <mutex>
#include <set>

#include "platform/core/condition.h"
#include "platform/core/thread.h"
#include "platform/endvat/endvat.h"
#include "sim/guest/wire/messages.h"

namespace zem::sim::guest {

class EndvatLibrary;

/// The callback in which a thread of the library is.
struct CallbackContext {
  const EndvatLibrary* library = nullptr;
  Event event;
  ENDVAT_HANDLE handle = nullptr;
  /// Where the guest's data pointer is kept; null in a callback of the multiplexer.
  void** data = nullptr;
};

/// One thread of the library and the events that wait for it.  All events of a guest go to one worker.
class CallbackWorker {
 public:
  explicit CallbackWorker(EndvatLibrary& library);
  ~CallbackWorker();

  void Push(const Event& event);
  /// Ends after the callback that runs; what waits is dropped.
  void Stop();

  /// The callback of the calling thread; its library is null when there is none.
  static CallbackContext& Current();

 private:
  void Run();
  void Deliver(const Event& event);
  void Call(const Event& event, void** data);

  EndvatLibrary& library_;
  std::map<uint64_t, void*> runs_;  // owned by the thread: data of the guests that it has announced
  std::mutex mutex_;                // guards what follows
  Condition changed_;
  std::deque<Event> queue_;
  std::set<uint64_t> waiting_ticks_;
  bool stopping_ = false;
  NativeThread thread_;
};

}  // namespace zem::sim::guest
