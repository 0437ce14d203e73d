#include "app/ctxteng/introspection/mux_pusher.h"

#include <exception>
#include <string>
#include <utility>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/introspection/surroundings.h"
#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"
#include "proto/context/mux_config.pb.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

}  // namespace

MuxPusher::MuxPusher(std::shared_ptr<MuxPort> port, Task resend)
    : port_(std::move(port)), resend_(std::move(resend)) {}

MuxPusher::~MuxPusher() { Stop(); }

void MuxPusher::Post(Task task) {
  std::deque<Task> dropped;
  std::lock_guard lock(mutex_);
  if (stopping_) return;
  if (tasks_.size() >= kMostTasks) {
    ZLOG_WARN("OuviConfig: %zu configurations wait for the Mux, all of it is sent again", tasks_.size());
    dropped.swap(tasks_);
    tasks_.push_back(resend_);
  } else {
    tasks_.push_back(std::move(task));
  }
  if (!thread_.joinable()) {
    zem::NativeThread::Options options;
    options.name = "ctxt:muxPush";
    thread_ = zem::NativeThread(std::move(options), [this] { Run(); });
  }
  changed_.NotifyAll();
}

void MuxPusher::Stop() {
  std::deque<Task> dropped;
  zem::NativeThread thread;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    dropped.swap(tasks_);
    thread = std::move(thread_);
    changed_.NotifyAll();
  }
  if (thread.joinable()) thread.Join();
}

void MuxPusher::Run() {
  const zem::LoopThread loop("ctxt:muxPush", zem::LoopKind::kWorker);
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.Wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    if (stopping_) return;
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    try {
      const zem::LoopStep step("multiplexer");
      task();
    } catch (const std::exception& error) {
      ZLOG_CTX_ERROR(351, "OuviConfig: Exception in configuring Mux, error: %s", error.what());
    }
    task = nullptr;
    lock.lock();
  }
}

uint32_t MuxPusher::Push(const orlane::zem::ouvi::MuxConfigMsg& config) {
  std::string bytes;
  if (!config.SerializeToString(&bytes)) {
    ZLOG_CTX_ERROR(152, "OuviConfig: Failed to serialize MuxConfigMsg");
    throw CtxtProtobufError("Failed to serialize MuxConfigMsg");
  }
  const uint64_t connects = connects_;
  uint32_t status = port_->ConfigureMux(bytes);
  if (status == 0) return status;
  MuxState unknown = UNINITIALIZED;
  if (state_.compare_exchange_strong(unknown, MUX_DISCONNECTED)) {
    ZLOG_INFO("Changing muxConnectionState from UNINITIALIZED to MUX_DISCONNECTED");
  }
  // The multiplexer came while the push was on its way to nobody, and what its coming sent may not have this.
  if (connects_ != connects) status = port_->ConfigureMux(bytes);
  return status;
}

void MuxPusher::SetState(MuxState state) {
  if (state == MUX_CONNECTED) ++connects_;
  state_ = state;
  if (state == MUX_CONNECTED) {
    ZLOG_INFO("MUX connection state has been set to MUX_CONNECTED");
  } else if (state == MUX_DISCONNECTED) {
    ZLOG_INFO("MUX connection state has been set to MUX_DISCONNECTED");
  }
}

}  // namespace Ctxt
