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

/// The connection to the host management daemon: made anew whenever it is lost, and told to the health
/// record.  What the daemon asks goes to a pool of threads, which answer when they are done.
///
/// Threads: its own; all operations but those of Thread from any.
class CorvdHandler final : public Thread {
 public:
  static constexpr const char* kSocket = "/var/run/orlane/opaquenetwork_corvd_service";

  struct Times {
    Duration retry = std::chrono::microseconds(3'000'000);
    /// While somebody waits for the connection.
    Duration retry_with_waiter = std::chrono::microseconds(100'000);
    /// How often the pool is looked at while the daemon is silent.
    Duration slice = std::chrono::seconds(10);
    /// For the rest of a frame, in both directions: replies wait while a frame is read.
    Duration frame = std::chrono::seconds(60);
  };

  /// `health` has to outlive the handler.
  CorvdHandler(HealthRecord& health, std::unique_ptr<VifHandler> vif_handler, std::string socket = kSocket);
  CorvdHandler(HealthRecord& health, std::unique_ptr<VifHandler> vif_handler, std::string socket,
               Times times);
  ~CorvdHandler() override;

  void Run() override;
  void Stop() override;

  /// The daemon opens its socket with the first switch: waits for the connection.  True when there is one.
  bool WaitForCorvdConnection(int seconds);

  /// Takes a request from any source; after the end it is dropped.
  void AddRequest(std::shared_ptr<VifRequest> request) { pool_.AddRequest(std::move(request)); }

  /// Ports that wait for their VIFs.
  void SetPrecreatedPorts(std::shared_ptr<PrecreatedPorts::Map> ports) {
    precreated_ports_.Set(std::move(ports));
  }

  /// Before the start: the second source of requests, which begins and ends with the handler.
  void ServeVnics(std::string socket = VifDvportThread::kSocket);

  /// Before the start: the comparison with the host, which begins and ends with the handler.
  void ServeResync(ResyncThread::Settings settings);

  /// False while the host's switches change.
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

  /// One frame at a time, in either direction; guards the change of the socket and its number, which only
  /// the own thread makes.
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
