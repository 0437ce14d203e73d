#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/core/clock.h"
#include "platform/metrics/queue_gauge.h"

namespace zem::zema {

class VifHandler;
struct VifRequest;

/// The queue of VIF requests and the threads that serve it, first come, first served.  It makes threads while
/// requests wait, up to a limit, and ends them when they have long been idle.
///
/// Threads: AddRequest and load from any; Start, DeleteIdlingThread and Stop by the owner.
class HandlerPool {
 public:
  static constexpr size_t kMostHandlers = 30;
  /// Twice the ports of the largest host: one operation on each, and what each was left to do.
  static constexpr size_t kMostPending = 20'000;
  static constexpr Duration kIdleLimit = std::chrono::seconds(3600);

  /// Answers a request that came from the host management daemon; may block.
  using ReplyFunction = std::function<void(VifRequest&)>;

  /// `vif_handler` has to outlive the pool.
  HandlerPool(VifHandler& vif_handler, ReplyFunction reply);
  ~HandlerPool();

  /// Makes the first thread.
  void Start();
  /// Ends all threads and drops the requests that wait; the pool takes no request from then on.  Calling it
  /// twice has no effect.
  void Stop();

  /// Takes a request from any source.  A request of the host that comes while kMostPending wait is refused:
  /// the host gets its reply at once, from the caller's thread.  Other requests are taken even then: their
  /// makers, such as the manager that takes a VIF away, hear of no refusal and do not ask again.
  void AddRequest(std::shared_ptr<VifRequest> request);

  /// Ends one thread that has been idle for too long, unless it is the last.
  void DeleteIdlingThread();

  struct Load {
    /// Threads made, including those that are not ready yet.
    size_t handlers = 0;
    size_t free = 0;
    size_t pending = 0;
  };
  Load load();

 private:
  class HandlerThread;

  void CreateHandler();
  void Refuse(VifRequest& request);
  void RemoveHandler(HandlerThread& handler);

  // On the threads of the pool.
  void Serve(HandlerThread& handler);
  std::shared_ptr<VifRequest> HandlerReady(HandlerThread& handler);
  std::shared_ptr<VifRequest> HandlerDone(HandlerThread& handler);
  /// The first request that waits; null when none does, and the thread is free then.
  std::shared_ptr<VifRequest> TakeOrFreeLocked(HandlerThread& handler);
  /// Waits until a request is assigned to the free thread; null when the thread has to end.
  std::shared_ptr<VifRequest> Await(HandlerThread& handler);
  void ProcessAndGoOn(HandlerThread& handler, VifRequest& request);
  void Process(HandlerThread& handler, VifRequest& request);
  void Operate(HandlerThread& handler, VifRequest& request);

  VifHandler& vif_handler_;
  const ReplyFunction reply_;
  /// Guards what follows, and what the pool keeps in its threads.  Never held while a thread is joined.
  std::mutex mutex_;
  std::vector<std::shared_ptr<HandlerThread>> created_handlers_;
  /// How many of them have reported ready.
  size_t ready_handlers_ = 0;
  /// The longest idle first; the last one is used first.
  std::deque<std::shared_ptr<HandlerThread>> free_handlers_;
  std::deque<std::shared_ptr<VifRequest>> pending_requests_;
  QueueGauge pending_gauge_{"vifRequests", kMostPending};
  bool stopped_ = false;
};

}  // namespace zem::zema
