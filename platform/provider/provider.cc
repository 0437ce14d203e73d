#include "platform/provider/provider.h"

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/property_tree/ptree.hpp>
#include <csignal>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/core/lib_log.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/thread.h"
#include "platform/metrics/metrics.h"
#include "platform/provider/timer_queue.h"

namespace zem {
namespace {

thread_local const void* current_loop = nullptr;

constexpr int kDrainRounds = 16;

class IoDispatcher final : public Dispatcher {
 public:
  explicit IoDispatcher(boost::asio::io_context& io) : io_(io) {}

  void Post(std::function<void()> function) override {
    if (Clock::Process().IsVirtual()) {
      boost::asio::post(
          io_, [function = std::move(function), token = std::make_shared<WorkToken>()] { Call(function); });
    } else {
      boost::asio::post(io_, [function = std::move(function)] { Call(function); });
    }
  }

 private:
  static void Call(const std::function<void()>& function) {
    const LoopStep step(function.target_type().name());
    function();
  }

  boost::asio::io_context& io_;
};

}  // namespace

class AsioZemProvider::Impl {
 public:
  Impl(const boost::property_tree::ptree& options, std::string name)
      : name(std::move(name)),
        guard(boost::asio::make_work_guard(io)),
        timers(std::make_shared<TimerQueue>(io)),
        dispatcher(io) {
    if (options.get("provider.stop_on_signals", true)) {
      signals.emplace(io, SIGINT, SIGTERM);
      signals->async_wait([this](const boost::system::error_code& error, int) {
        if (!error) Stop();
      });
    }
  }

  void Loop() {
    const LoopThread loop(name.empty() ? "provider" : name, LoopKind::kPrompt);
    const void* const outer = std::exchange(current_loop, this);
    for (;;) {
      try {
        io.run();
        break;
      } catch (const std::exception& error) {
        ZEM_LIB_LOG(Library::kNet, kLogError, "provider %s: a handler threw: %s", name.c_str(), error.what());
      } catch (...) {
        // Not an exception of ours: a cancelled thread unwinds this way and has to go on doing so.
        current_loop = outer;
        throw;
      }
    }
    current_loop = outer;
  }

  void StopAttachment() {
    std::function<void()> stop;
    {
      std::lock_guard lock(mutex);
      stop = std::exchange(attachment.stop, nullptr);
    }
    if (stop) stop();
  }

  // What was posted runs, and what that posted in turn, for some rounds: closing sockets and ending calls
  // takes a few.  A loop that feeds itself for ever does not keep the process.
  void StopAfterPosted(int rounds) {
    boost::asio::post(io, [this, rounds] {
      if (rounds > 0) {
        StopAfterPosted(rounds - 1);
      } else {
        io.stop();
      }
    });
  }

  void Stop() {
    StopAttachment();
    stopping = true;
    io.stop();
  }

  const std::string name;
  boost::asio::io_context io;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard;
  std::optional<boost::asio::signal_set> signals;
  std::shared_ptr<TimerQueue> timers;
  IoDispatcher dispatcher;
  metrics::Registry registry;
  std::atomic<bool> stopping{false};

  std::mutex mutex;  // guards attachment and threads
  Attachment attachment;
  std::vector<NativeThread> threads;
};

AsioZemProvider::AsioZemProvider(const boost::property_tree::ptree& options, const std::string& name)
    : impl_(std::make_unique<Impl>(options, name)) {}

AsioZemProvider::AsioZemProvider() {
  boost::property_tree::ptree options;
  options.put("provider.stop_on_signals", false);
  impl_ = std::make_unique<Impl>(options, "");
}

AsioZemProvider::~AsioZemProvider() {
  StopAndWait(false);
  Attachment attachment;
  {
    std::lock_guard lock(impl_->mutex);
    attachment = std::move(impl_->attachment);
  }
  attachment.object.reset();
}

void AsioZemProvider::Run(int threads) {
  if (threads > 1) RunAsync(threads - 1);
  impl_->Loop();
  std::vector<NativeThread> joined;
  {
    std::lock_guard lock(impl_->mutex);
    joined.swap(impl_->threads);
  }
}

void AsioZemProvider::RunAsync(int threads) {
  std::lock_guard lock(impl_->mutex);
  for (int i = 0; i < threads; ++i) {
    NativeThread::Options options;
    options.counts_as_work = false;
    impl_->threads.emplace_back(std::move(options), [this] { impl_->Loop(); });
  }
}

void AsioZemProvider::Stop() { impl_->Stop(); }

void AsioZemProvider::StopAndWait(bool run_posted) {
  if (RunsOnThisThread()) {
    ZEM_LIB_LOG(Library::kNet, kLogWarning, "provider %s: stopped from its own thread, not joined",
                impl_->name.c_str());
    impl_->Stop();
    return;
  }
  impl_->StopAttachment();
  impl_->timers->Close();
  impl_->stopping = true;
  std::vector<NativeThread> joined;
  {
    std::lock_guard lock(impl_->mutex);
    joined.swap(impl_->threads);
  }
  if (run_posted) {
    impl_->StopAfterPosted(kDrainRounds);
  } else {
    impl_->io.stop();
  }
}

bool AsioZemProvider::stopped() const { return impl_->stopping; }

bool AsioZemProvider::RunsOnThisThread() const { return current_loop == impl_.get(); }

metrics::Registry& AsioZemProvider::metrics() { return impl_->registry; }

TimerFactory& AsioZemProvider::timers() { return *impl_->timers; }

Dispatcher& AsioZemProvider::dispatcher() { return impl_->dispatcher; }

boost::asio::io_context& AsioZemProvider::io() { return impl_->io; }

const std::string& AsioZemProvider::name() const { return impl_->name; }

std::shared_ptr<void> AsioZemProvider::Attach(const std::function<Attachment()>& make) {
  std::lock_guard lock(impl_->mutex);
  if (!impl_->attachment.object) impl_->attachment = make();
  return impl_->attachment.object;
}

}  // namespace zem
