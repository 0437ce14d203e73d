#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/rpc/call_state.h"
#include "platform/rpc/link/deadline_heap.h"
#include "platform/rpc/link/frame_sender.h"

namespace zem::rpc {

/// What the channels and calls of one connection share: the sender, the deadlines, the number of calls, and
/// the ends that are still to be reported.
///
/// Threads: all operations under the connection's mutex, from any thread.
class CallHost : public FrameSender {
 public:
  /// There is no room for another call.
  bool full() const { return calls_ >= kCallsLimit; }
  /// Counts `call`, and watches its deadline if it has one.
  void AddCall(CallState& call);
  void RemoveCall(CallState& call);

  /// Reports the end of a call on the strand.
  void ReportEnd(std::shared_ptr<EndReceiver> call, Status status);
  /// Reports the end of a channel on the strand.
  void ReportChannelEnd(std::shared_ptr<EndReceiver> channel, Status status);

  /// A channel has ended: frames that name it are late from now on.
  virtual void ForgetChannel(uint32_t id) = 0;

 protected:
  using FrameSender::FrameSender;

  /// Reports every end that is due.  On the strand, without the mutex.
  void DeliverEnds();

  /// At least one channel's end was reported.  On the strand, without the mutex.
  virtual void ChannelsEnded() = 0;
  /// The earliest deadline may have changed.
  virtual void ArmTimer() = 0;

  TimePoint first_deadline() const { return deadlines_.first(); }
  /// Ends the calls whose deadline has passed.  The caller destroys what is returned after releasing the
  /// mutex.
  [[nodiscard]] std::vector<std::shared_ptr<CallState>> ExpireCalls(TimePoint now);

 private:
  struct Ended {
    std::shared_ptr<EndReceiver> receiver;
    Status status;
    bool channel;
  };

  void PostEnds();

  // Guarded by the connection's mutex:
  size_t calls_ = 0;  // both ways
  DeadlineHeap deadlines_;
  std::vector<Ended> ended_;
  bool ended_posted_ = false;
};

}  // namespace zem::rpc
