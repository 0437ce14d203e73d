#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "app/zema/host/vif_dvport_thread.h"
#include "app/zema/resync/resync_thread.h"
#include "app/zema/vif/precreated_ports.h"
#include "app/zema/vifqueue/handler_pool.h"
#include "app/zema/vifqueue/vif_handler.h"
#include "framework/tasks/synchronizable.h"
#include "framework/tasks/thread.h"
#include "platform/core/clock.h"
#include "platform/core/condition.h"
#include "platform/core/unique_fd.h"

namespace zem::zema {

class HealthRecord;
struct CorvdRequest;

/// The connection to the host management daemon.  It is re-established whenever it is lost, and its state is
/// reported to the health record.  The daemon's requests go to a pool of threads, which answer when they are
/// done.
///
/// Threads: its own; all operations but those of Thread from any.
class CorvdHandler final : public Thread {
 public:
  static constexpr const char* kSocket = "/var/run/orlane/opaquenetwork_corvd_service";

  struct Times {
    Duration retry = std::chrono::microseconds(3'000'000);
    /// The pause between tries while somebody waits for the connection.
    Duration retry_with_waiter = std::chrono::microseconds(100'000);
    /// How often the pool is checked for idle threads while the daemon is silent.
    Duration slice = std::chrono::seconds(10);
    /// The time limit for a frame that has begun, in both directions.  Replies wait while a frame is read.
    Duration frame = std::chrono::seconds(60);
  };

  /// `health` has to outlive the handler.
  CorvdHandler(HealthRecord& health, std::unique_ptr<VifHandler> vif_handler, std::string socket = kSocket);
  CorvdHandler(HealthRecord& health, std::unique_ptr<VifHandler> vif_handler, std::string socket,
               Times times);
  ~CorvdHandler() override;

  void Run() override;
  void Stop() override;

  /// Waits for the connection: the daemon opens its socket with the first switch.  Returns true when
  /// connected.
  bool WaitForCorvdConnection(int seconds);

  /// Takes a request from any source.  Drops it when the handler has ended.
  void AddRequest(std::shared_ptr<VifRequest> request) { pool_.AddRequest(std::move(request)); }

  /// Sets the ports that wait for their VIFs.
  void SetPrecreatedPorts(std::shared_ptr<PrecreatedPorts::Map> ports) {
    precreated_ports_.Set(std::move(ports));
  }

  /// Adds the vNIC socket as a second source of requests, which starts and ends with the handler.  Called
  /// before the start.
  void ServeVnics(std::string socket = VifDvportThread::kSocket);

  /// Adds the resync, which starts and ends with the handler.  Called before the start.
  void ServeResync(ResyncThread::Settings settings);

  /// Forbids the resync while the host's switches change.
  void AllowResync(bool allowed) {
    if (resync_) resync_->Allow(allowed);
  }

  HandlerPool& pool() { return pool_; }

 private:
  void Connect();
  bool Pause();
  bool Serve();
  std::shared_ptr<CorvdRequest> ReadFrame();
  int HandleCorvdMessage(std::shared_ptr<CorvdRequest> request);
  void PopulateResultAndReplyToCorvd(VifRequest& request);
  int ReplyToCorvd(const CorvdRequest& request, const std::string& payload);
  bool stopped();
  void Close();
  void StartSources();
  void EndSources();

  HealthRecord& health_;
  const std::unique_ptr<VifHandler> vif_handler_;
  const std::string path_;
  const Times times_;
  UniqueFd stop_event_;
  PrecreatedPorts precreated_ports_;

  /// Held for each whole frame, in either direction.  It also guards changes of the socket and the connection
  /// number, which only the handler's own thread makes.
  Synchronizable frame_lock_;
  UniqueFd socket_;
  uint64_t connection_ = 0;

  std::mutex state_lock_;  // guards what follows
  Condition changed_;
  bool connected_ = false;
  bool stopped_ = false;
  int waiters_ = 0;

  HandlerPool pool_;  // ends before what it uses
  std::unique_ptr<ResyncThread> resync_;
  std::unique_ptr<VifDvportThread> vnics_;  // ends first
};

}  // namespace zem::zema
