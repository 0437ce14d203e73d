#include "platform/core/thread.h"

#include <mutex>
#include <system_error>
#include <utility>

#include "platform/core/clock.h"
#include "platform/core/condition.h"
#include "platform/core/thread_name.h"

namespace zem {

struct NativeThread::State {
  Options options;
  std::function<void()> body;
  bool tracked = false;

  std::mutex mutex;  // guards ended
  Condition changed;
  bool ended = false;
};

void* NativeThread::Enter(void* argument) {
  auto* const raw = static_cast<std::shared_ptr<State>*>(argument);
  const std::shared_ptr<State> state = std::move(*raw);
  delete raw;  // made by the constructor for this hand-over through the C interface

  // In a destructor, because a cancelled thread leaves by unwinding.
  struct Leave {
    State& state;
    ~Leave() {
      state.body = nullptr;
      {
        std::lock_guard lock(state.mutex);
        state.ended = true;
      }
      state.changed.NotifyAll();
      if (state.tracked) Clock::Process().EndWork();
    }
  } leave{*state};

  if (!state->options.name.empty()) SetThreadName(state->options.name);
  state->body();
  return nullptr;
}

NativeThread::NativeThread(Options options, std::function<void()> body)
    : state_(std::make_shared<State>()), detached_(options.detached) {
  state_->options = std::move(options);
  state_->body = std::move(body);
  Clock& clock = Clock::Process();
  state_->tracked = clock.IsVirtual() && state_->options.counts_as_work;

  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  if (detached_) pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  if (state_->options.stack_size > 0) pthread_attr_setstacksize(&attributes, state_->options.stack_size);
  if (state_->tracked) clock.BeginWork();
  auto hand_over = std::make_unique<std::shared_ptr<State>>(state_);
  const int result = pthread_create(&id_, &attributes, &NativeThread::Enter, hand_over.get());
  pthread_attr_destroy(&attributes);
  if (result != 0) {
    if (state_->tracked) clock.EndWork();
    state_.reset();
    throw std::system_error(result, std::generic_category(), "pthread_create");
  }
  static_cast<void>(hand_over.release());
}

NativeThread::~NativeThread() {
  if (joinable()) Join();
}

NativeThread& NativeThread::operator=(NativeThread&& other) noexcept {
  if (this != &other) {
    if (joinable()) Join();
    state_ = std::move(other.state_);
    id_ = other.id_;
    detached_ = other.detached_;
  }
  return *this;
}

void NativeThread::Join() {
  {
    // The clock sees this wait; the one of pthread_join it would not.
    std::unique_lock lock(state_->mutex);
    state_->changed.Wait(lock, [this] { return state_->ended; });
  }
  const int result = pthread_join(id_, nullptr);
  state_.reset();
  if (result != 0) throw std::system_error(result, std::generic_category(), "pthread_join");
}

bool NativeThread::JoinUntil(TimePoint deadline) {
  {
    std::unique_lock lock(state_->mutex);
    if (!state_->changed.WaitUntil(lock, deadline, [this] { return state_->ended; })) return false;
  }
  Join();
  return true;
}

void NativeThread::Detach() {
  if (!joinable()) return;
  pthread_detach(id_);
  state_.reset();
  detached_ = true;
}

int NativeThread::Cancel() { return pthread_cancel(id_); }

void SleepFor(std::chrono::nanoseconds duration) {
  std::mutex mutex;
  std::unique_lock lock(mutex);
  Condition never;
  never.WaitFor(lock, duration, [] { return false; });
}

}  // namespace zem
