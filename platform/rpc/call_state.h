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

/// Something whose end a connection reports on its strand: a call, or a channel.
class EndReceiver {
 public:
  virtual ~EndReceiver() = default;
  virtual void ReceiveEnd(const Status& status) = 0;
};

/// One call as handles see it; the two sides derive from it.  Part of the library's inner side.
///
/// Threads: all operations from any thread.
class CallState : public EndReceiver, public std::enable_shared_from_this<CallState> {
 public:
  virtual void Cancel() = 0;
  /// Sends one message of this side, the last one when `last`.  Returns false when it was not taken.
  virtual bool Write(const google::protobuf::MessageLite& message, bool last) = 0;
  /// This side has nothing more to send; a server's status ends the call.
  virtual bool Close(const Status& status) = 0;
  /// Nothing while the call runs.
  virtual std::optional<Status> FinalStatus() const = 0;

 protected:
  friend class DeadlineHeap;
  friend class CallHost;

  static constexpr size_t kNotQueued = SIZE_MAX;

  /// Ends the call because its deadline has passed.  Runs under the connection's mutex; the caller destroys
  /// what is returned after releasing the mutex.
  [[nodiscard]] virtual std::shared_ptr<CallState> Expire() = 0;

  // Guarded by the connection's mutex once the call is in its tables.
  TimePoint deadline_ = TimePoint::max();
  size_t deadline_slot_ = kNotQueued;
};

}  // namespace zem::rpc
