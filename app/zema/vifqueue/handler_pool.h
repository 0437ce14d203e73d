#pragma once

#include <pthread.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>

#include "framework/tasks/synchronizable.h"
#include "platform/core/clock.h"
#include "platform/metrics/queue_gauge.h"

namespace zem::zema {

class HandlerThread;
class VifHandler;
struct VifRequest;

/// The threads that serve VIF requests, and the requests that wait for one: first come, first served.  Grows
/// under load up to a limit, and shrinks again when threads have long been idle.
///
/// Threads: AddRequest, and the handlers' calls, from any; Start, DeleteIdlingThread and Stop by the owner.
/// The lock is never held together with a handler's monitor, nor while a thread is joined.
class HandlerPool {
 public:
  static constexpr size_t kMostHandlers = 30;
  /// Twice the ports of the largest host: one operation on each, and what each was left to do.
  static constexpr size_t kMostPending = 20'000;
  static constexpr Duration kIdleLimit = std::chrono::seconds(3600);

  /// Owed for each request that came with one; may block.
  using ReplyFunction = std::function<void(VifRequest&)>;

  /// `vif_handler` has to outlive the pool.
  HandlerPool(VifHandler& vif_handler, ReplyFunction reply);
  ~HandlerPool();

  /// The first thread.
  void Start();
  /// Ends all threads and drops what waits; no request is taken from then on.  Again is harmless.
  void Stop();

  /// Takes a request from any source.  One of the host that comes while kMostPending wait is refused: the
  /// host gets its reply at once, from the caller's thread.  Others are taken: who made them, as the manager
  /// when it takes a VIF away, hears of no refusal and does not ask again.
  void AddRequest(std::shared_ptr<VifRequest> request);

  /// Ends one thread that has been idle for too long, unless it is the last.
  void DeleteIdlingThread();

  // --- for the handlers

  /// A new thread joins; gives its first request, or null: it is free then.
  std::shared_ptr<VifRequest> HandlerReady(HandlerThread& handler);
  /// Gives the next request, or null: the thread is free then.
  std::shared_ptr<VifRequest> HandlerDone(HandlerThread& handler);
  void Reply(VifRequest& request) { reply_(request); }
  VifHandler& vif_handler() { return vif_handler_; }

  struct Load {
    /// Threads made, those that are not ready yet included.
    size_t handlers = 0;
    size_t free = 0;
    size_t pending = 0;
  };
  Load load();

 private:
  struct Free {
    std::shared_ptr<HandlerThread> handler;
    TimePoint since;
  };
  using Made = std::map<HandlerThread*, std::shared_ptr<HandlerThread>>;

  std::shared_ptr<HandlerThread> AssignFreeHandlerLocked();
  void Refuse(VifRequest& request);
  void CreateHandler();
  bool RemoveHandler(HandlerThread& handler);
  std::shared_ptr<VifRequest> TakePendingLocked();
  void FreeLocked(HandlerThread& handler);

  VifHandler& vif_handler_;
  const ReplyFunction reply_;
  Synchronizable lock_;  // guards what follows
  Made created_handlers_;
  std::map<pthread_t, HandlerThread*> all_handlers_;
  /// The longest idle first; the last one is used first.
  std::deque<Free> free_handlers_;
  std::deque<std::shared_ptr<VifRequest>> pending_requests_;
  QueueGauge pending_gauge_{"vifRequests", kMostPending};
  bool stopped_ = false;
};

}  // namespace zem::zema
