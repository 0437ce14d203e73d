#include "app/ctxteng/kafka/kafka_client_slot.h"

#include <atomic>
#include <exception>
#include <list>
#include <utility>

#include "app/ctxteng/kafka/kafka_client.h"
#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/thread.h"

namespace Ctxt::PaceClient {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

}  // namespace

// Destroys clients, several at once: each waits for its own brokers.  It lives as long as the last client,
// whose user may outlive the slot.
class KafkaClientSlot::Reaper {
 public:
  // After the stop, and when the system has no thread for it, the last user destroys the client itself.
  void Take(std::unique_ptr<KafkaClient> client) {
    try {
      TakeOnThread(std::move(client));
    } catch (const std::exception& error) {
      ZLOG_WARN("Zemi: A Kafka client was flushed by its last user: %s", error.what());
    }
  }

  void Stop() {
    std::list<Ending> endings;
    std::lock_guard lock(mutex_);
    stopped_ = true;
    endings.swap(endings_);
    // The threads are joined with the list, behind the lock.
  }

  void Resume() {
    std::lock_guard lock(mutex_);
    stopped_ = false;
  }

 private:
  struct Ending {
    std::shared_ptr<std::atomic<bool>> ended;
    zem::NativeThread thread;
  };

  void TakeOnThread(std::unique_ptr<KafkaClient> client) {
    std::lock_guard lock(mutex_);
    if (stopped_) return;
    std::erase_if(endings_, [](const Ending& ending) { return ending.ended->load(); });
    Ending ending{std::make_shared<std::atomic<bool>>(false), {}};
    zem::NativeThread::Options options;
    options.name = "ctxt:kafkaEnd";
    ending.thread = zem::NativeThread(
        std::move(options),
        [last = std::shared_ptr<KafkaClient>(std::move(client)), ended = ending.ended]() mutable {
          const zem::LoopThread loop("ctxt:kafkaEnd", zem::LoopKind::kWorker);
          {
            const zem::LoopStep step("flush and end of a client");
            last.reset();
          }
          *ended = true;
        });
    endings_.push_back(std::move(ending));
  }

  std::mutex mutex_;  // guards all below
  std::list<Ending> endings_;
  bool stopped_ = false;
};

KafkaClientSlot::KafkaClientSlot() : reaper_(std::make_shared<Reaper>()) {}

KafkaClientSlot::~KafkaClientSlot() { Shutdown(); }

void KafkaClientSlot::Replace(std::unique_ptr<KafkaClient> client) {
  std::shared_ptr<KafkaClient> next;
  if (client) {
    reaper_->Resume();
    next = std::shared_ptr<KafkaClient>(client.release(), [reaper = reaper_](KafkaClient* last) {
      reaper->Take(std::unique_ptr<KafkaClient>(last));
    });
  }
  {
    std::lock_guard lock(mutex_);
    client_.swap(next);
  }
}

std::shared_ptr<KafkaClient> KafkaClientSlot::Get() const {
  std::lock_guard lock(mutex_);
  return client_;
}

void KafkaClientSlot::Shutdown() {
  Replace(nullptr);
  reaper_->Stop();
}

}  // namespace Ctxt::PaceClient
