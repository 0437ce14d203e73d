#pragma once

#include <atomic>
#include <boost/intrusive_ptr.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "framework/dataplane/lcp_frame.h"
#include "platform/core/ref_counted.h"
#include "platform/core/stop_signal.h"
#include "platform/provider/bounded_queue.h"

namespace zem {

class AsioZemProvider;
class SharedSocket;
class Timer;
class WorkGroup;

namespace Tarvik {

/// A link that carries frames to the dataplane agent and back.
class DataplaneLink : public RefCounted<DataplaneLink, IRefCountable> {
 public:
  /// Gets each whole frame, header included; on the link's thread, with no lock held.
  using ReceiveCallback = std::function<void(const uint8_t* frame, size_t length)>;
  using StartCallback = std::function<void()>;
  /// False takes the link down; called every 5 seconds under the connection mutex.
  using HealthCallback = std::function<bool(int socket)>;

  virtual bool Start() = 0;
  virtual void Stop() = 0;
  virtual void ScheduleReopen() = 0;
  /// Takes the frame; false when it was not queued.
  virtual bool Send(LcpFrame frame) = 0;
  /// The same, but never waits.
  virtual bool TrySend(LcpFrame frame) = 0;
  /// Whether there is a connection now.  Takes no lock.
  bool connected() const { return connected_; }

 protected:
  DataplaneLink(ReceiveCallback receive, StartCallback start, HealthCallback health)
      : receive_(std::move(receive)), start_(std::move(start)), health_(std::move(health)) {}

  const ReceiveCallback receive_;
  const StartCallback start_;
  const HealthCallback health_;
  std::mutex connection_mutex_;
  std::atomic<bool> connected_{false};
};

/// The link over a Unix stream socket.  It reconnects by itself, within 5 seconds, for as long as it runs;
/// frames that are queued while it is down wait for it.
///
/// Threads: two of the work group for as long as it runs, and the provider's timers.  All operations from any
/// thread. Ownership: keeps itself alive from Start to Stop; the provider must outlive it.
class DpLink final : public DataplaneLink {
 public:
  /// Of `path` the first 107 bytes are used.
  DpLink(std::string path, ReceiveCallback receive, StartCallback start, HealthCallback health,
         AsioZemProvider& provider, boost::intrusive_ptr<WorkGroup> work_group);
  ~DpLink() override;

  /// False when the work group takes no more items.
  bool Start() override;

  /// Ends both loops and wakes blocked senders; does not wait for the loops.
  void Stop() override;

  /// Begins the 5 seconds to the next connection attempt anew.
  void ScheduleReopen() override;

  /// Waits while 1024 frames are queued.  False, with an error line, for a null frame and after Stop.
  bool Send(LcpFrame frame) override;

  /// False, with an error line, also when 1024 frames are queued.
  bool TrySend(LcpFrame frame) override;

 private:
  using Socket = std::shared_ptr<SharedSocket>;
  class Receiver;

  void ConnectLocked();
  void Disconnect(const Socket& socket);
  void DisconnectLocked();
  void CheckHealth();
  void StartTimerLocked();
  Socket CurrentSocket();
  void ReceiveLoop();
  void SendLoop();
  bool SendWhole(const Socket& socket, const LcpFrame& frame);

  AsioZemProvider& provider_;
  const boost::intrusive_ptr<WorkGroup> work_group_;
  const std::string path_;
  Socket socket_;                        // null when closed; guarded by the connection mutex
  std::shared_ptr<Timer> reopen_timer_;  // guarded by the connection mutex
  BoundedQueue<LcpFrame> outgoing_;
  StopSignal stop_;
};

}  // namespace Tarvik
}  // namespace zem
