#include "framework/tasks/thread.h"

#include <signal.h>

#include <cerrno>
#include <system_error>

#include "framework/tasks/exception.h"

namespace zem {
namespace {

constexpr size_t kLeastStack = 16384;

void BlockTerminationSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGABRT}) sigaddset(&signals, signal);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace

Thread::Thread(bool joinable, std::unique_ptr<Runnable> target, size_t stack_size)
    : target_(std::move(target)),
      joinable_(joinable),
      stack_size_(stack_size > kLeastStack ? stack_size : 0) {}

Thread::~Thread() = default;

void Thread::Lock() { monitor_.lock(); }

void Thread::Unlock() {
  if (monitor_.HeldByCaller()) monitor_.unlock();
}

void Thread::Run() {}

pthread_t Thread::ThreadId() const { return id_; }

void Thread::Start() {
  if (thread_) throw Exception("thread has been started", 0);
  NativeThread::Options options;
  options.stack_size = stack_size_;
  options.detached = !joinable_;
  try {
    thread_.emplace(options, [this] { Body(); });
  } catch (const std::system_error& e) {
    throw Exception("pthread_create", e.code().value());
  }
  id_ = thread_->id();
}

void Thread::Body() {
  id_ = pthread_self();
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
  pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
  BlockTerminationSignals();
  Runnable& target = target_ != nullptr ? *target_ : *this;
  try {
    target.Run();
  } catch (...) {  // also the unwinding of a cancellation, which must go on
    target.Unlock();
    throw;
  }
}

void Thread::Join() {
  if (!thread_) throw Exception("Thread not started yet", 0);
  if (!joinable_) throw Exception("pthread_join", EINVAL);
  if (!thread_->joinable()) return;
  try {
    thread_->Join();
  } catch (const std::system_error& e) {
    throw Exception("pthread_join", e.code().value());
  }
}

void Thread::Stop() {
  if (!thread_) throw Exception("Thread not started yet", 0);
  if (joinable_ && !thread_->joinable()) return;
  if (const int result = thread_->Cancel(); result != 0) throw Exception("pthread_cancel", result);
}

void Thread::StopAndJoin() {
  if (!thread_ || !thread_->joinable()) return;
  Stop();
  Join();
}

int Thread::Wait(int seconds) {
  signalled_ = false;
  if (seconds == 0) {
    condition_.Wait(monitor_, [this] { return signalled_; });
    return 1;
  }
  return condition_.WaitFor(monitor_, std::chrono::seconds(seconds), [this] { return signalled_; }) ? 1 : 0;
}

void Thread::Notify() {
  signalled_ = true;
  condition_.NotifyOne();
}

}  // namespace zem
