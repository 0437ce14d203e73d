#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/core/clock.h"
#include "platform/rpc/status.h"

namespace google::protobuf {
class MessageLite;
}

namespace zem::rpc {

/// One call as handles see it; the two sides derive from it.  Part of the library's inner side.
///
/// Threads: all operations from any thread.
class CallState : public std::enable_shared_from_this<CallState> {
 public:
  virtual ~CallState() = default;

  virtual void Cancel() = 0;
  /// One message of this side, the last when `last`.  False when it was not taken.
  virtual bool Write(const google::protobuf::MessageLite& message, bool last) = 0;
  /// This side has nothing more to send; a server's status ends the call.
  virtual bool Close(const Status& status) = 0;
  /// Nothing while the call runs.
  virtual std::optional<Status> FinalStatus() const = 0;

 protected:
  friend class DeadlineHeap;

  static constexpr size_t kNotQueued = SIZE_MAX;

  // Guarded by the connection's mutex once the call is in its tables.
  TimePoint deadline_ = TimePoint::max();
  size_t deadline_slot_ = kNotQueued;
};

}  // namespace zem::rpc
