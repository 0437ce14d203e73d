#include "app/zema/vifqueue/handler_pool.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "app/zema/ports/vif_request.h"
#include "app/zema/vifqueue/vif_handler.h"
#include "framework/log/log.h"
#include "framework/tasks/exception.h"
#include "framework/tasks/task_thread.h"
#include "framework/tasks/thread.h"
#include "framework/tasks/thread_log_context.h"
#include "platform/core/condition.h"
#include "platform/core/thread_name.h"
#include "platform/metrics/process_metrics.h"
#include "platform/timeline/step.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "CorvdHandlerThread";
constexpr const char* kThreadTag = "VifHandlerThread";
constexpr const char* kTooManyWait = "Too many port operations wait. Please retry.";

// Nothing can be trusted after this.
constexpr std::string_view kMutexGone = "boost: mutex lock failed in pthread_mutex_lock: Invalid argument";

}  // namespace

/// A thread of the pool.  Its monitor is for the operation that it carries out, which waits for the manager
/// on it; what the pool gives the thread is guarded by the pool's mutex.
class HandlerPool::HandlerThread final : public Thread, public std::enable_shared_from_this<HandlerThread> {
 public:
  explicit HandlerThread(HandlerPool& pool) : Thread(true, nullptr, 0), pool_(pool) {}
  ~HandlerThread() override { StopAndJoin(); }

  void Run() override { pool_.Serve(*this); }
  /// It ends after the request that it has.
  void Stop() override {
    const std::lock_guard lock(pool_.mutex_);
    stopping_ = true;
    wake_.NotifyOne();
  }
  long Number() const { return static_cast<long>(ThreadId()); }

 private:
  friend class HandlerPool;

  HandlerPool& pool_;
  Condition wake_;
  std::shared_ptr<VifRequest> assigned_;
  TimePoint free_since_;
  bool stopping_ = false;
};

HandlerPool::HandlerPool(VifHandler& vif_handler, ReplyFunction reply)
    : vif_handler_(vif_handler), reply_(std::move(reply)) {}

HandlerPool::~HandlerPool() { Stop(); }

void HandlerPool::Start() {
  ZLOG_INFO("[%s] Starting %d handler threads\n", kTag, 1);
  CreateHandler();
}

void HandlerPool::Stop() {
  std::vector<std::shared_ptr<HandlerThread>> handlers;
  size_t dropped = 0;
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    handlers.swap(created_handlers_);
    ready_handlers_ = 0;
    free_handlers_.clear();
    dropped = pending_requests_.size();
    pending_requests_.clear();
    pending_gauge_.Dropped(dropped);
  }
  if (dropped > 0) ZLOG_WARN("[%s] %zu waiting requests end with the pool", kTag, dropped);
  if (!handlers.empty()) vif_handler_.EndWaits();
  for (const auto& handler : handlers) handler->Stop();
  for (const auto& handler : handlers) {
    handler->Join();
    ZLOG_INFO("[%s] HandlerThread [%ld] terminated\n", kTag, handler->Number());
  }
}

void HandlerPool::AddRequest(std::shared_ptr<VifRequest> request) {
  std::shared_ptr<HandlerThread> handler;
  bool full = false;
  request->BeginTimeline();
  {
    const std::lock_guard lock(mutex_);
    if (stopped_) {
      ZLOG_WARN("[%s] request [%s] comes after the end", kTag, request->ToString().c_str());
      return;
    }
    full = request->request && pending_requests_.size() >= kMostPending;
    if (full) {
      pending_gauge_.Refused();
    } else {
      // Under the lock, so that no request on the same VIF is served before one that arrived earlier.
      vif_handler_.Arrived(*request);
      if (free_handlers_.empty()) {
        pending_requests_.push_back(std::move(request));
        pending_gauge_.Entered();
      } else {
        handler = std::move(free_handlers_.back());
        free_handlers_.pop_back();
      }
    }
  }
  if (full) return Refuse(*request);
  if (!handler) return CreateHandler();
  ZLOG_INFO("[%s] assign HandlerThread [%ld] to [%s]\n", kTag, handler->Number(),
            request->ToString().c_str());
  const std::lock_guard lock(mutex_);
  handler->assigned_ = std::move(request);
  handler->wake_.NotifyOne();
}

void HandlerPool::Refuse(VifRequest& request) {
  ZLOG_WARN("[%s] request [%s] is refused: %zu requests wait", kTag, request.ToString().c_str(),
            kMostPending);
  if (request.error_text.empty()) request.error_text = kTooManyWait;
  reply_(request);
  timeline::Finish(request.carried.operation(), request.error_text);
}

// A thread counts from its start, so that a burst before the first one is ready makes no more than the limit.
void HandlerPool::CreateHandler() {
  auto handler = std::make_shared<HandlerThread>(*this);
  const std::lock_guard lock(mutex_);
  if (stopped_ || created_handlers_.size() >= kMostHandlers) return;
  try {
    handler->Start();
  } catch (const Exception& e) {
    // The requests that wait are for the other threads, or for the one that the next request makes.
    ZLOG_WARN("[%s] no new handler thread: %s", kTag, e.what());
    return;
  }
  created_handlers_.push_back(std::move(handler));
}

void HandlerPool::DeleteIdlingThread() {
  std::shared_ptr<HandlerThread> handler;
  {
    const std::lock_guard lock(mutex_);
    if (created_handlers_.size() < 2 || free_handlers_.empty()) return;
    if (Clock::Process().Now() - free_handlers_.front()->free_since_ <= kIdleLimit) return;
    handler = std::move(free_handlers_.front());
    free_handlers_.pop_front();
  }
  ZLOG_INFO("[%s] HandlerThread [%ld] idle over limit: to be removed\n", kTag, handler->Number());
  handler->Stop();
  handler->Join();
  RemoveHandler(*handler);
}

void HandlerPool::RemoveHandler(HandlerThread& handler) {
  size_t left = 0;
  bool found = false;
  {
    const std::lock_guard lock(mutex_);
    found = std::erase_if(created_handlers_, [&](const auto& made) { return made.get() == &handler; }) != 0;
    left = found ? --ready_handlers_ : 0;
  }
  if (!found) {
    ZLOG_ERROR("42027", "[%s] HandlerThread not found\n", kTag);
    return;
  }
  ZLOG_INFO("[%s] HandlerThread [%ld] is terminated and removed: pool size:%lu\n", kTag, handler.Number(),
            static_cast<unsigned long>(left));
}

HandlerPool::Load HandlerPool::load() {
  const std::lock_guard lock(mutex_);
  return {created_handlers_.size(), free_handlers_.size(), pending_requests_.size()};
}

void HandlerPool::Serve(HandlerThread& handler) {
  SetThreadLogContext(kThreadTag);
  SetThreadName("zema:Handler");
  ZLOG_INFO("[%s] Handler thread [%ld] started ...\n", kThreadTag, handler.Number());
  auto request = HandlerReady(handler);
  while (request) {
    ProcessAndGoOn(handler, *request);
    request = HandlerDone(handler);
  }
}

std::shared_ptr<VifRequest> HandlerPool::HandlerReady(HandlerThread& handler) {
  std::shared_ptr<VifRequest> request;
  size_t ready = 0;
  {
    const std::lock_guard lock(mutex_);
    if (stopped_) return nullptr;
    ready = ++ready_handlers_;
    request = TakeOrFreeLocked(handler);
  }
  ZLOG_INFO("[%s] HandlerThread [%ld] is added to overall pool (size:%lu)\n", kTag, handler.Number(),
            static_cast<unsigned long>(ready));
  if (!request) return Await(handler);
  ZLOG_INFO("[%s] HandlerThread [%ld] picked up request [%s] upon startup\n", kTag, handler.Number(),
            request->ToString().c_str());
  return request;
}

std::shared_ptr<VifRequest> HandlerPool::HandlerDone(HandlerThread& handler) {
  std::shared_ptr<VifRequest> request;
  size_t free = 0;
  {
    const std::lock_guard lock(mutex_);
    if (stopped_ || handler.stopping_) return nullptr;
    request = TakeOrFreeLocked(handler);
    free = free_handlers_.size();
  }
  if (!request) {
    ZLOG_INFO("[%s] handler [%ld] back in the free pool (size:%lu)\n", kTag, handler.Number(),
              static_cast<unsigned long>(free));
    return Await(handler);
  }
  ZLOG_INFO("[%s] HandlerThread [%ld] picked up request [%s]\n", kTag, handler.Number(),
            request->ToString().c_str());
  return request;
}

std::shared_ptr<VifRequest> HandlerPool::TakeOrFreeLocked(HandlerThread& handler) {
  if (pending_requests_.empty()) {
    handler.free_since_ = Clock::Process().Now();
    free_handlers_.push_back(handler.shared_from_this());
    return nullptr;
  }
  std::shared_ptr<VifRequest> request = std::move(pending_requests_.front());
  pending_requests_.pop_front();
  pending_gauge_.Left();
  return request;
}

std::shared_ptr<VifRequest> HandlerPool::Await(HandlerThread& handler) {
  std::unique_lock lock(mutex_);
  handler.wake_.Wait(lock, [&handler] { return handler.assigned_ || handler.stopping_; });
  return std::exchange(handler.assigned_, nullptr);
}

// One request that cannot even be answered must not take the others with it.
void HandlerPool::ProcessAndGoOn(HandlerThread& handler, VifRequest& request) {
  try {
    Process(handler, request);
  } catch (const std::exception& e) {
    timeline::Finish(request.carried.operation(), e.what());
    ZLOG_ERROR("42000", "[%s] caught exception: %s\n", kThreadTag, e.what());
    if (std::string_view(e.what()) != kMutexGone) return;
    ZLOG_ERROR("42000", "The exception is related to boost mutex, hence throwing exception.");
    throw;
  } catch (...) {
    timeline::Finish(request.carried.operation(), "unknown exception");
    ZLOG_ERROR("42000", "[%s] caught Unknown Exception: %s\n", kThreadTag, request.ToString().c_str());
  }
}

void HandlerPool::Process(HandlerThread& handler, VifRequest& request) {
  const std::string text = request.ToString();
  const timeline::Scope scope(request.carried.operation());
  timeline::Waited("waits for a thread", request.carried.since());
  const TimePoint begun = Clock::Process().Now();
  ZLOG_INFO("[%s] Handler [%ld] processing request [%s] ...\n", kThreadTag, handler.Number(), text.c_str());
  if (request.error_text.empty()) {
    Operate(handler, request);
  } else {
    // A request that has failed already is only answered: the next one on the VIF does not wait for that.
    request.turn.reset();
  }
  if (request.request) {
    timeline::Step answer("answers the host");
    reply_(request);
    if (!request.error_text.empty()) {
      answer.Result(request.error_text, true);
    } else {
      answer.Result(request.result_text.empty() ? "done" : request.result_text, false);
    }
  }
  timeline::Finish(request.carried.operation(), request.error_text);
  const Duration duration = Clock::Process().Now() - begun;
  const std::string operation = request.KindText();
  metrics::LatencyOf(metrics::MetricId::kVifOperations, operation).Record(duration);
  if (!request.error_text.empty()) metrics::CounterOf(metrics::MetricId::kVifFailures, operation).Add();
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(duration);
  ZLOG_INFO("[%s] Handler [%ld] done with request [%s] in time %llu\n", kThreadTag, handler.Number(),
            text.c_str(), static_cast<unsigned long long>(took.count()));
}

// The monitor is held, as the waits for the manager need it.
void HandlerPool::Operate(HandlerThread& handler, VifRequest& request) {
  const MonitorLock lock(handler);
  std::string what;
  try {
    return vif_handler_.DoVifPortOperation(request, handler);
  } catch (const std::exception& e) {
    what = e.what();
  } catch (...) {
    what = "unknown exception";
  }
  ZLOG_ERROR("42002", "[%s] failed in process request [%s]: %s", kThreadTag, request.ToString().c_str(),
             what.c_str());
  // The host must not take it for done.
  if (request.error_text.empty()) request.error_text = std::move(what);
}

}  // namespace zem::zema
