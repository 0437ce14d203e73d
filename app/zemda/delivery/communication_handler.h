#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "app/zemda/base/data_collector.h"
#include "app/zemda/delivery/ack_thread.h"
#include "app/zemda/delivery/data_sender.h"
#include "app/zemda/delivery/inventory_rx_msg.h"
#include "app/zemda/delivery/manager_road.h"
#include "app/zemda/delivery/message_monitor.h"

namespace zem {
class NativeThread;
}

namespace ZemDa {

/// The conversation with the manager: one message is outstanding at a time, the manager acknowledges it by
/// its correlation id, and the manager decides when everything is reported anew.
///
/// Threads: `InitiateMPAClient` and `Stop` by the owner; the others from any thread.
class CommunicationHandler final : public DataSender::Road {
 public:
  using IdaMsg = orlane::zem::ida::IdaMsg;

  CommunicationHandler(std::shared_ptr<DataSender> sender, std::shared_ptr<DataCollector> collector,
                       std::unique_ptr<IManagerRoad> road);
  ~CommunicationHandler() override;

  void InitiateMPAClient();
  /// Once it has returned, no thread of the sender or the collector is started and nothing is sent.
  void BeginStop();
  /// Ends the road, the receive thread and both timers.
  void Stop();

  void SendCommand(int command, int message_type, bool ack_thread) override;
  void SendMsg(const IdaMsg& message, bool ack_thread) override;

 private:
  using RxQueue = SynchronizedQueue<std::shared_ptr<InventoryRxMsg>>;

  void OnRecord(const rmqClientMessage& record);
  void ReceiveLoop();
  void HandleRegistration();
  void HandleClose();
  void HandlePayload(const InventoryRxMsg& received);
  void HandleSyncInit();
  void HandleAck(const std::string& correlation_id);
  void Disarm();
  void AckTimedOut();
  void DSTimerTimeout();
  void RequestEverything();

  const std::shared_ptr<DataSender> sender_;
  const std::shared_ptr<DataCollector> collector_;
  const std::unique_ptr<IManagerRoad> road_;
  const std::shared_ptr<RxQueue> inbox_ = std::make_shared<RxQueue>();
  std::atomic<bool> stopping_{false};
  bool started_ = false;
  // Held over a send, so that the timer, the state and the id belong together, and over the start of threads,
  // so that none comes behind a stop.
  std::mutex send_mutex_;
  std::mutex state_mutex_;  // guards what follows
  bool last_sent_was_data_ = false;
  std::string last_correlation_id_;
  uint64_t last_arming_ = 0;
  AckThread ack_thread_;
  MessageMonitor monitor_;
  std::unique_ptr<zem::NativeThread> receive_thread_;
};

}  // namespace ZemDa
