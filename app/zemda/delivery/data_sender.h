#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "app/zemda/base/data_collector.h"
#include "app/zemda/base/thread.h"
#include "platform/core/clock.h"

namespace orlane::zem::ida {
class IdaMsg;
}

namespace ZemDa {

/// Takes the collector's records, batches them into messages and sends one after the other.
///
/// Threads: all operations from any thread.
class DataSender final : public Thread {
 public:
  using IdaMsg = orlane::zem::ida::IdaMsg;
  enum State : int {
    kWaitingForData = 0,
    kWaiting = 1,  // for the manager
    kDoSyncInit = 2,
  };

  /// How messages leave.
  class Road {
   public:
    virtual ~Road() = default;
    virtual void SendCommand(int command, int message_type, bool ack_thread) = 0;
    virtual void SendMsg(const IdaMsg& message, bool ack_thread) = 0;
  };

  /// `sent` gets each message behind its sending, on the sender's thread.
  DataSender(std::shared_ptr<DcQueue> queue, std::function<void(const IdaMsg&)> sent);
  ~DataSender() override;

  /// Before the first `Start`; it outlives the thread.
  void SetRoad(Road* road) { road_ = road; }

  /// Also names the calling thread by the state.
  void SetState(State state);
  State state() const { return state_; }
  /// How long it has been in its state.
  zem::Duration state_age() const { return zem::Clock::Process().Now() - state_since_.load(); }
  /// Records that wait, and messages handed to the road since the start.
  size_t waiting() const { return queue_->size(); }
  uint64_t sent() const { return messages_sent_; }
  /// Something was sent: the time without a message begins anew.
  void ResetIdle() { idle_count_ = 0; }

  void operator()() override;

 private:
  void Idle(State state);
  void WaitForManager();
  void SendUpdates(size_t most, IdaMsg* batch);
  void TakeOfFullSync(IdaMsg* batch);
  void Send(IdaMsg* batch);

  const std::shared_ptr<DcQueue> queue_;
  const std::function<void(const IdaMsg&)> sent_;
  Road* road_ = nullptr;
  std::atomic<State> state_{kWaiting};
  std::atomic<zem::TimePoint> state_since_{zem::Clock::Process().Now()};
  std::atomic<uint32_t> idle_count_{0};
  std::atomic<uint64_t> messages_sent_{0};
};

}  // namespace ZemDa
