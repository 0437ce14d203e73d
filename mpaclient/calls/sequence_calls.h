#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

#include "platform/rpc/call.h"

namespace orlane::zem::messaging {
class GenericUnifiedMsg;
}

namespace zem {

/// The running app-init calls of one vertical, by the sequence number of their handshake.
///
/// Threads: all operations from any thread.
class SequenceCalls {
 public:
  using Handle = rpc::CallHandle<orlane::zem::messaging::GenericUnifiedMsg>;

  explicit SequenceCalls(std::string app_type) : app_type_(std::move(app_type)) {}

  /// Starts a call with `start`, which returns its handle, and keeps the handle unless `sequence` is 0.  The
  /// lock is held meanwhile, so the end of the call finds the handle however fast the answer comes.
  template <class StartCall>
  void AddToSeqToCallHandleMap(uint32_t sequence, StartCall start) {
    const std::lock_guard lock(mutex_);
    Handle handle = start();
    if (sequence != 0) Add(sequence, std::move(handle));
  }
  /// An empty handle, after a log line, when there is no call of that number.
  Handle GetFromSeqToCallHandleMap(uint32_t sequence) const;
  void DeleteFromSeqToCallHandleMap(uint32_t sequence);

 private:
  void Add(uint32_t sequence, Handle handle);

  const std::string app_type_;
  mutable std::mutex mutex_;  // guards the map and the start of a call
  std::unordered_map<uint32_t, Handle> handles_;
};

}  // namespace zem
