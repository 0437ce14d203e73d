#include "app/zema/vifqueue/handler_pool.h"

#include <utility>

#include "app/zema/ports/vif_request.h"
#include "app/zema/vifqueue/handler_thread.h"
#include "app/zema/vifqueue/vif_handler.h"
#include "framework/log/log.h"
#include "framework/tasks/exception.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "CorvdHandlerThread";
constexpr const char* kTooManyWait = "Too many port operations wait. Please retry.";

}  // namespace

HandlerPool::HandlerPool(VifHandler& vif_handler, ReplyFunction reply)
    : vif_handler_(vif_handler), reply_(std::move(reply)) {}

HandlerPool::~HandlerPool() { Stop(); }

void HandlerPool::Start() {
  ZLOG_INFO("[%s] Starting %d handler threads\n", kTag, 1);
  CreateHandler();
}

void HandlerPool::Stop() {
  Made handlers;
  size_t dropped = 0;
  {
    const Synchronizer lock(lock_, __FILE__, __LINE__);
    stopped_ = true;
    handlers.swap(created_handlers_);
    all_handlers_.clear();
    free_handlers_.clear();
    dropped = pending_requests_.size();
    pending_requests_.clear();
    pending_gauge_.Dropped(dropped);
  }
  if (dropped > 0) ZLOG_WARN("[%s] %zu waiting requests end with the pool", kTag, dropped);
  if (!handlers.empty()) vif_handler_.EndWaits();
  for (const auto& [pointer, handler] : handlers) handler->Stop();
  for (const auto& [pointer, handler] : handlers) {
    handler->Join();
    ZLOG_INFO("[%s] HandlerThread [%ld] terminated\n", kTag, handler->Number());
  }
}

void HandlerPool::AddRequest(std::shared_ptr<VifRequest> request) {
  std::shared_ptr<HandlerThread> handler;
  bool full = false;
  {
    const Synchronizer lock(lock_, __FILE__, __LINE__);
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
      handler = AssignFreeHandlerLocked();
      if (!handler) {
        pending_requests_.push_back(std::move(request));
        pending_gauge_.Entered();
      }
    }
  }
  if (full) return Refuse(*request);
  if (!handler) return CreateHandler();
  ZLOG_INFO("[%s] assign HandlerThread [%ld] to [%s]\n", kTag, handler->Number(),
            request->ToString().c_str());
  handler->Assign(std::move(request));
}

void HandlerPool::Refuse(VifRequest& request) {
  ZLOG_WARN("[%s] request [%s] is refused: %zu requests wait", kTag, request.ToString().c_str(),
            kMostPending);
  if (request.error_text.empty()) request.error_text = kTooManyWait;
  reply_(request);
}

std::shared_ptr<HandlerThread> HandlerPool::AssignFreeHandlerLocked() {
  if (free_handlers_.empty()) return nullptr;
  std::shared_ptr<HandlerThread> handler = std::move(free_handlers_.back().handler);
  free_handlers_.pop_back();
  return handler;
}

// It counts from here on, so that a burst before the first is ready makes no more than the limit.
void HandlerPool::CreateHandler() {
  auto handler = std::make_shared<HandlerThread>(*this);
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  if (stopped_ || created_handlers_.size() >= kMostHandlers) return;
  try {
    handler->Start();
  } catch (const Exception& e) {
    // What waits is for the others, or for the thread that the next request makes.
    ZLOG_WARN("[%s] no new handler thread: %s", kTag, e.what());
    return;
  }
  created_handlers_.emplace(handler.get(), handler);
}

std::shared_ptr<VifRequest> HandlerPool::HandlerReady(HandlerThread& handler) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  if (stopped_) return nullptr;
  all_handlers_.emplace(handler.ThreadId(), &handler);
  ZLOG_INFO("[%s] HandlerThread [%ld] is added to overall pool (size:%lu)\n", kTag, handler.Number(),
            all_handlers_.size());
  std::shared_ptr<VifRequest> request = TakePendingLocked();
  if (!request) {
    FreeLocked(handler);
    return nullptr;
  }
  ZLOG_INFO("[%s] HandlerThread [%ld] picked up request [%s] upon startup\n", kTag, handler.Number(),
            request->ToString().c_str());
  return request;
}

std::shared_ptr<VifRequest> HandlerPool::HandlerDone(HandlerThread& handler) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  if (stopped_) return nullptr;
  std::shared_ptr<VifRequest> request = TakePendingLocked();
  if (request) {
    ZLOG_INFO("[%s] HandlerThread [%ld] picked up request [%s]\n", kTag, handler.Number(),
              request->ToString().c_str());
    return request;
  }
  FreeLocked(handler);
  ZLOG_INFO("[%s] handler [%ld] back in the free pool (size:%lu)\n", kTag, handler.Number(),
            free_handlers_.size());
  return nullptr;
}

std::shared_ptr<VifRequest> HandlerPool::TakePendingLocked() {
  if (pending_requests_.empty()) return nullptr;
  std::shared_ptr<VifRequest> request = std::move(pending_requests_.front());
  pending_requests_.pop_front();
  pending_gauge_.Left();
  return request;
}

void HandlerPool::FreeLocked(HandlerThread& handler) {
  const auto made = created_handlers_.find(&handler);
  if (made != created_handlers_.end()) {
    free_handlers_.push_back(Free{made->second, Clock::Process().Now()});
  }
}

void HandlerPool::DeleteIdlingThread() {
  std::shared_ptr<HandlerThread> handler;
  {
    const Synchronizer lock(lock_, __FILE__, __LINE__);
    if (created_handlers_.size() < 2 || free_handlers_.empty()) return;
    if (Clock::Process().Now() - free_handlers_.front().since <= kIdleLimit) return;
    handler = std::move(free_handlers_.front().handler);
    free_handlers_.pop_front();
  }
  ZLOG_INFO("[%s] HandlerThread [%ld] idle over limit: to be removed\n", kTag, handler->Number());
  handler->Stop();
  handler->Join();
  RemoveHandler(*handler);
}

bool HandlerPool::RemoveHandler(HandlerThread& handler) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  if (created_handlers_.erase(&handler) == 0) {
    ZLOG_ERROR("42027", "[%s] HandlerThread not found\n", kTag);
    return false;
  }
  all_handlers_.erase(handler.ThreadId());
  ZLOG_INFO("[%s] HandlerThread [%ld] is terminated and removed: pool size:%lu\n", kTag, handler.Number(),
            all_handlers_.size());
  return true;
}

HandlerPool::Load HandlerPool::load() {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  return {created_handlers_.size(), free_handlers_.size(), pending_requests_.size()};
}

}  // namespace zem::zema
