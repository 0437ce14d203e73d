#include "app/zema/vifqueue/handler_thread.h"

#include <exception>
#include <utility>

#include "app/zema/ports/vif_request.h"
#include "app/zema/vifqueue/handler_pool.h"
#include "app/zema/vifqueue/vif_handler.h"
#include "framework/log/log.h"
#include "framework/tasks/task_thread.h"
#include "framework/tasks/thread_log_context.h"
#include "platform/core/clock.h"
#include "platform/core/thread_name.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "VifHandlerThread";

// Nothing can be trusted after this.
constexpr std::string_view kMutexGone = "boost: mutex lock failed in pthread_mutex_lock: Invalid argument";

}  // namespace

HandlerThread::HandlerThread(HandlerPool& pool) : Thread(true, nullptr, 0), pool_(pool) {}

HandlerThread::~HandlerThread() { StopAndJoin(); }

void HandlerThread::Run() {
  SetThreadLogContext(kTag);
  SetThreadName("zema:Handler");
  ZLOG_INFO("[%s] Handler thread [%ld] started ...\n", kTag, Number());
  std::shared_ptr<VifRequest> request = pool_.HandlerReady(*this);
  for (;;) {
    if (!request) request = Await();
    if (!request) return;
    ProcessAndGoOn(*request);
    request = stopped_ ? nullptr : pool_.HandlerDone(*this);
  }
}

void HandlerThread::Stop() {
  stopped_ = true;
  const MonitorLock lock(*this);
  Notify();
}

void HandlerThread::Assign(std::shared_ptr<VifRequest> request) {
  const MonitorLock lock(*this);
  assigned_ = std::move(request);
  Notify();
}

std::shared_ptr<VifRequest> HandlerThread::Await() {
  const MonitorLock lock(*this);
  while (!assigned_ && !stopped_) Wait(0);
  return std::exchange(assigned_, nullptr);
}

// One request that cannot even be answered must not take the others with it.
void HandlerThread::ProcessAndGoOn(VifRequest& request) {
  try {
    Process(request);
  } catch (const std::exception& e) {
    ZLOG_ERROR("42000", "[%s] caught exception: %s\n", kTag, e.what());
    if (std::string_view(e.what()) != kMutexGone) return;
    ZLOG_ERROR("42000", "The exception is related to boost mutex, hence throwing exception.");
    throw;
  } catch (...) {
    ZLOG_ERROR("42000", "[%s] caught Unknown Exception: %s\n", kTag, request.ToString().c_str());
  }
}

void HandlerThread::Process(VifRequest& request) {
  const std::string text = request.ToString();
  const TimePoint begun = Clock::Process().Now();
  ZLOG_INFO("[%s] Handler [%ld] processing request [%s] ...\n", kTag, Number(), text.c_str());
  if (request.error_text.empty()) {
    Operate(request);
  } else {
    // It is answered only: the next one on the VIF does not wait for that.
    request.turn.reset();
  }
  if (request.request) pool_.Reply(request);
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::Process().Now() - begun);
  ZLOG_INFO("[%s] Handler [%ld] done with request [%s] in time %llu\n", kTag, Number(), text.c_str(),
            static_cast<unsigned long long>(took.count()));
}

// The monitor is held, as the waits for the manager need it.
void HandlerThread::Operate(VifRequest& request) {
  const MonitorLock lock(*this);
  std::string what;
  try {
    return pool_.vif_handler().DoVifPortOperation(request, *this);
  } catch (const std::exception& e) {
    what = e.what();
  } catch (...) {
    what = "unknown exception";
  }
  ZLOG_ERROR("42002", "[%s] failed in process request [%s]: %s", kTag, request.ToString().c_str(),
             what.c_str());
  // The host must not take it for done.
  if (request.error_text.empty()) request.error_text = std::move(what);
}

}  // namespace zem::zema
