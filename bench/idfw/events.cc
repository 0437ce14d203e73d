// What it costs a guest's thread to hand a logon over.

#include <algorithm>
#include <atomic>
#include <boost/lockfree/queue.hpp>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "app/ctxteng/channel/ctxt_channel.h"
#include "app/ctxteng/channel/mpa_channel.h"
#include "app/ctxteng/guest/guest_table.h"
#include "app/ctxteng/idfw/login_logoff_event_listener.h"
#include "app/ctxteng/idfw/login_logoff_info_cache.h"
#include "app/ctxteng/idfw/login_logoff_info_messenger.h"
#include "app/ctxteng/idfw/login_logoff_info_router.h"
#include "app/ctxteng/idfw/login_logoff_signal.h"
#include "bench/idfw/cases.h"
#include "bench/soak/measures.h"
#include "platform/core/clock.h"
#include "platform/core/thread.h"
#include "platform/core/uuid.h"
#include "proto/context/idfw.pb.h"

namespace zem::bench {
namespace {

using Ctxt::LoginLogoffInfo;
using Ctxt::LoginLogoffInfoCache;

constexpr int kRounds = 9;
constexpr uint32_t kLimit = LoginLogoffInfoCache::kMostEntries;

double Median(std::vector<double> values) { return Quantile(std::move(values), 0.5); }

double ThreadNs() {
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// Nanoseconds of a producer's processor time per event: `producers` threads put `events` in all, one thread
// takes them out.  Processor time, since the machine's other work would decide a comparison of elapsed time.
template <class Put, class Take>
double PerEvent(uint32_t events, uint32_t producers, const Put& put, const Take& take) {
  std::atomic<uint32_t> running = producers;
  std::atomic<bool> go = false;
  std::atomic<int64_t> spent = 0;
  std::vector<std::thread> threads;
  for (uint32_t i = 0; i < producers; ++i) {
    threads.emplace_back([&] {
      while (!go) std::this_thread::yield();
      const double begin = ThreadNs();
      for (uint32_t n = 0; n < events / producers; ++n) put(Logon(n));
      spent += static_cast<int64_t>(ThreadNs() - begin);
      --running;
    });
  }
  std::thread drainer([&] {
    while (running > 0) {
      take();
      std::this_thread::yield();
    }
    take();
  });
  go = true;
  for (std::thread& thread : threads) thread.join();
  drainer.join();
  return static_cast<double>(spent) / events;
}

void CompareProducers(uint32_t events, uint32_t producers) {
  const auto signal = std::make_shared<Ctxt::LoginLogoffSignal>();
  const auto cache = std::make_shared<LoginLogoffInfoCache>(kLimit, 100, signal);
  Ctxt::LoginLogoffEventListener listener(cache);
  boost::lockfree::queue<LoginLogoffInfo*> queue(kLimit);
  uint64_t taken = 0;
  std::vector<double> ours;
  std::vector<double> peer;
  for (int round = 0; round < kRounds; ++round) {
    peer.push_back(PerEvent(
        events, producers, [&](std::unique_ptr<LoginLogoffInfo> info) { queue.push(info.release()); },
        [&] {
          LoginLogoffInfo* info = nullptr;
          while (queue.pop(info)) {
            taken += info->sessionId;
            delete info;
          }
        }));
    ours.push_back(PerEvent(
        events, producers, [&](std::unique_ptr<LoginLogoffInfo> info) { listener.OnEvent(std::move(info)); },
        [&] {
          cache->ConsumeAll([&](const LoginLogoffInfo& info) { return (taken += info.sessionId, true); });
        }));
  }
  if (taken == 0) std::printf("# nothing was taken\n");
  PrintLine("idfw", "on-event-" + std::to_string(producers), "ns", Median(ours), Median(peer));
}

// A manager that takes batches and never answers, or answers each after a while.
class SlowManager final : public Ctxt::CtxtChannel {
 public:
  explicit SlowManager(std::chrono::milliseconds delay)
      : CtxtChannel(Ctxt::MpaChannel::GetInstance()), delay_(delay) {}
  ~SlowManager() override {
    for (NativeThread& answer : answers_) answer.Join();
  }

  void RegisterClient(const std::string&, const std::string&, Callback callback) override {
    callback_ = std::move(callback);
  }
  int SendMsg(const Ctxt::CtxtMsg& message, bool) override {
    const auto& batch =
        dynamic_cast<const orlane::zem::context::idfw::LoginLogoffEventMsg&>(*message.payload);
    sent += static_cast<uint64_t>(batch.login_logoff_event_size());
    ++batches;
    if (delay_ < std::chrono::milliseconds::zero()) return 0;
    if (delay_ == std::chrono::milliseconds::zero()) {
      Answer(message.correlationId);
    } else {
      answers_.emplace_back([this, id = message.correlationId] {
        SleepFor(delay_);
        Answer(id);
      });
    }
    return 0;
  }

  std::atomic<uint64_t> sent{0};
  std::atomic<uint64_t> batches{0};
  std::atomic<uint64_t> answered{0};

 private:
  void Answer(const std::string& id) {
    auto ack = std::make_shared<orlane::zem::context::idfw::LoginLogoffEventAckMsg>();
    ack->set_status_code(0);
    auto message = std::make_shared<Ctxt::CtxtMsg>();
    message->payloadType = "com.orlane.zem.context.idfw.LoginLogoffEventAckMsg";
    message->correlationId = id;
    message->payload = std::move(ack);
    callback_(message);
    ++answered;
  }

  const std::chrono::milliseconds delay_;
  Callback callback_;
  std::vector<NativeThread> answers_;
};

void MeasureDuringASend(uint32_t events) {
  SlowManager manager(std::chrono::milliseconds(-1));
  Ctxt::LoginLogoffInfoRouter router({.cache_limit = kLimit,
                                      .timer_interval = 3600,
                                      .ack_timeout = 3600,
                                      .cache_threshold = 1,
                                      .max_backoff_counter = 8},
                                     manager);
  router.Connect();
  router.Start();
  // The threshold sends the first batch, whose answer does not come.
  for (uint32_t n = 0; n <= kLimit / 100; ++n) router.listener().OnEvent(Logon(n));
  while (manager.batches == 0) SleepFor(std::chrono::milliseconds(1));
  std::vector<double> us;
  for (uint32_t n = 0; n < events; ++n) {
    auto info = Logon(n);
    const Instant begin = Now();
    router.listener().OnEvent(std::move(info));
    us.push_back(std::chrono::duration<double, std::micro>(Now() - begin).count());
  }
  PrintLine("idfw", "on-event-during-a-send", "p99.9-us", Quantile(us, 0.999), 20);
}

bool CountThroughLimit(uint32_t events, std::chrono::milliseconds delay) {
  const uint64_t bad_lines = LogCounter::bad_lines();
  SlowManager manager(delay);
  uint64_t dropped = 0;
  uint64_t replaced = 0;
  {
    Ctxt::LoginLogoffInfoRouter router({.cache_limit = 1000,
                                        .timer_interval = 1,
                                        .ack_timeout = 10,
                                        .cache_threshold = 50,
                                        .max_backoff_counter = 8},
                                       manager);
    router.Connect();
    router.Start();
    for (uint32_t n = 0; n < events; ++n) router.listener().OnEvent(Logon(n));
    const Instant end = Now() + std::chrono::seconds(20);
    while ((manager.sent + router.cache().dropped() < events || manager.answered < manager.batches) &&
           Now() < end) {
      SleepFor(std::chrono::milliseconds(10));
    }
    // The messenger takes the last answer.
    SleepFor(std::chrono::milliseconds(50));
    dropped = router.cache().dropped();
    replaced = router.messenger().replaced();
  }
  const std::string name = "limit-" + std::to_string(delay.count()) + "ms";
  PrintLine("idfw", name, "sent-and-dropped", static_cast<double>(manager.sent + dropped), events);
  // Each drop is an error line of two tags.
  const auto lines = static_cast<double>(LogCounter::bad_lines() - bad_lines);
  PrintLine("idfw", name, "drop-lines", lines, static_cast<double>(2 * dropped));
  // The sender's loop tells once that a step takes longer than a quarter of a second.
  const double others = lines - static_cast<double>(2 * dropped);
  return manager.sent + dropped == events && replaced == 0 && others >= 0 && others <= 1;
}

}  // namespace

std::unique_ptr<LoginLogoffInfo> Logon(uint32_t number) {
  auto info = std::make_unique<LoginLogoffInfo>();
  info->sessionId = number;
  info->userName = "alice.anderson";
  info->domainName = "corp.example.com";
  info->clientIpType = 0;
  const std::string ip = "10.9.9.9";
  ip.copy(info->clientIp.data(), info->clientIp.size());
  info->timestamp = static_cast<uint64_t>(Clock::Process().WallNow().time_since_epoch().count() / 1000000);
  info->vcUuid = "502a1122-3344-5566-7788-99aabbccdd01";
  info->biosUuid = "42000000000000000000000000000001";
  return info;
}

// The manager turns the feature on and off on a host of many guests.
void MeasureToggle() {
  constexpr uint32_t kGuests = 2000;
  Ctxt::GuestTable guests;
  std::unordered_map<std::string, uint64_t> bare;
  std::mutex mutex;
  for (uint32_t n = 0; n < kGuests; ++n) {
    const auto vm = std::make_shared<Ctxt::VmData>();
    vm->vc_uuid = RandomUuidText();
    bare[vm->vc_uuid] = 0;
    guests.Add(vm);
  }
  std::vector<double> ours;
  std::vector<double> peer;
  for (int round = 0; round < 10 * kRounds; ++round) {
    const uint64_t mask = round % 2 == 0 ? 0x48 : 0;
    Instant begin = Now();
    guests.SetEventMaskForAllVms(Ctxt::kIdfwClient, mask);
    ours.push_back(std::chrono::duration<double, std::micro>(Now() - begin).count());
    begin = Now();
    {
      const std::lock_guard lock(mutex);
      for (auto& [key, value] : bare) value = mask;
    }
    peer.push_back(std::chrono::duration<double, std::micro>(Now() - begin).count());
  }
  PrintLine("idfw", "toggle-of-2000-guests", "us", Median(ours), Median(peer));
}

bool RunEvents(uint32_t events) {
  MeasureToggle();
  CompareProducers(events, 1);
  CompareProducers(events, 4);
  MeasureDuringASend(events);
  return true;
}

bool RunLimit(uint32_t events) {
  bool good = true;
  for (const int ms : {0, 10, 1000}) good &= CountThroughLimit(events, std::chrono::milliseconds(ms));
  return good;
}

}  // namespace zem::bench
