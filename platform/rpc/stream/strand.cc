#include "platform/rpc/stream/strand.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <utility>

#include "platform/core/clock.h"
#include "platform/core/lib_log.h"
#include "platform/core/loop_monitor.h"

namespace zem::rpc {
namespace {

// A long queue gives way to the loop's other work now and then.
constexpr int kFunctionsPerTurn = 64;

}  // namespace

bool Strand::Enter() {
  std::lock_guard lock(mutex_);
  if (running_) return false;
  running_ = true;
  return true;
}

void Strand::Post(std::function<void()> function) {
  std::lock_guard lock(mutex_);
  if (io_ == nullptr) return;
  queue_.push_back(std::move(function));
  if (running_) return;
  running_ = true;
  PostDrain();
}

void Strand::PostDrain() {
  // The token holds a virtual clock still until what is queued has run.
  boost::asio::post(*io_, [self = shared_from_this(), token = WorkToken()] { self->Drain(); });
}

void Strand::Drain() {
  for (int turn = 0;; ++turn) {
    std::function<void()> function;
    {
      std::lock_guard lock(mutex_);
      if (queue_.empty() || io_ == nullptr) {
        running_ = false;
        return;
      }
      if (turn == kFunctionsPerTurn) {
        PostDrain();
        return;
      }
      function = std::move(queue_.front());
      queue_.pop_front();
    }
    try {
      const LoopStep step(function.target_type().name());
      const FlushScope scope;
      function();
    } catch (const std::exception& error) {
      LogThrown(error);
    }
  }
}

void Strand::Detach() {
  std::deque<std::function<void()>> dropped;  // destroyed after the lock: they own connections
  std::lock_guard lock(mutex_);
  io_ = nullptr;
  dropped.swap(queue_);
}

void Strand::LogThrown(const std::exception& error) {
  ZEM_LIB_LOG(Library::kRpc, kLogError, "a callback threw: %s", error.what());
}

}  // namespace zem::rpc
