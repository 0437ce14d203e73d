#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bench/soak/agent_side.h"
#include "bench/soak/cases.h"
#include "bench/soak/measures.h"
#include "mpaclient/verticals.h"
#include "platform/core/thread.h"
#include "platform/provider/timer.h"
#include "sim/manager/manager.h"

namespace zem::bench {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr const char* kName = "soak";
constexpr const char* kCase = "restarts";
constexpr int kPerSecond = 200;
// A vertical sends a request of its own with one in this many requests of the manager.
constexpr size_t kOwnEvery = 5;
constexpr seconds kRestartEvery{5};
// Time after a restart until the host is back: the connection takes 1 s, the stubs up to 1.5 s.
constexpr seconds kNewMasterAfter{4};
constexpr milliseconds kProxyAway{200};
constexpr seconds kCallTimeout{5};
// Reconnect after 5 s, the widest spread of 11 s, an app-init that is repeated after 10 s and 20 s.
constexpr seconds kBackWithin{60};
constexpr seconds kWarm{10};
// Proxies and hosts that come and go leave the allocator's pools larger.  A leak in every request would
// exceed this within a minute.
constexpr uint64_t kMayGrowKib = 4096;
// A sanitizer keeps freed memory for a while, and tables of its own.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kMemoryTells = false;
#else
constexpr bool kMemoryTells = true;
#endif

// Tracks numbered requests: each has to end once and may reach its vertical only once.
class Ledger {
 public:
  explicit Ledger(size_t capacity) : ends_(capacity), deliveries_(capacity) {}

  void Ended(size_t number, int status) {
    if (++ends_[number] > 1) return;
    std::lock_guard lock(mutex_);
    ++statuses_[status];
  }
  /// Returns the request's number.
  size_t Delivered(const std::string& correlation_id) {
    char* end = nullptr;
    const size_t number = std::strtoul(correlation_id.c_str(), &end, 10);
    if (*end != '\0' || number >= deliveries_.size()) {
      ++foreign_;
      return number;
    }
    ++deliveries_[number];
    return number;
  }

  static size_t Count(const std::vector<std::atomic<uint32_t>>& of, size_t sent, uint32_t least) {
    return static_cast<size_t>(std::count_if(of.begin(), of.begin() + static_cast<std::ptrdiff_t>(sent),
                                             [least](const auto& each) { return each >= least; }));
  }
  size_t ended(size_t sent) const { return Count(ends_, sent, 1); }
  size_t ended_twice(size_t sent) const { return Count(ends_, sent, 2); }
  size_t delivered(size_t sent) const { return Count(deliveries_, sent, 1); }
  size_t delivered_twice(size_t sent) const { return Count(deliveries_, sent, 2); }
  size_t foreign() const { return foreign_; }
  std::map<int, size_t> statuses() const {
    std::lock_guard lock(mutex_);
    return statuses_;
  }

 private:
  std::vector<std::atomic<uint32_t>> ends_;
  std::vector<std::atomic<uint32_t>> deliveries_;
  std::atomic<size_t> foreign_{0};
  mutable std::mutex mutex_;  // guards statuses_
  std::map<int, size_t> statuses_;
};

class Soak {
 public:
  explicit Soak(int run_seconds)
      : run_(run_seconds),
        endpoints_(FreeEndpoints()),
        ledger_(static_cast<size_t>(run_seconds) * kPerSecond + 1000),
        own_(static_cast<size_t>(run_seconds) * kPerSecond / kOwnEvery + 1000) {
    sim::Manager::Options options;
    options.info_endpoint = endpoints_.info;
    options.forwarding_endpoint = endpoints_.forwarding;
    options.transport_node_id = EarlyTransportNode();
    options.remembered = 100;
    manager_ = std::make_unique<sim::Manager>(options);
    manager_->StartProxy();
    for (const char* aph : kAphs) manager_->AddAph(aph, aph == kAphs[0]);
    for (const Vertical* vertical : AllVerticals()) {
      if (ServesCalls(*vertical)) asked_.push_back(vertical);
    }
    work_.RunAsync(1);
    agent_ = std::make_unique<AgentSide>(
        endpoints_, AllVerticals(),
        [this](const Vertical& vertical, const rmqClientMessage& message) { Receive(vertical, message); });
  }

  ~Soak() {
    work_.StopAndWait(true);
    agent_.reset();
    manager_.reset();
  }

  bool Run() {
    AwaitReady();
    Require(ready() == AllVerticals().size(), "a vertical was not ready before the load");
    const uint64_t before = ResidentKib();
    const double cpu = CpuSeconds();
    const Instant begun = Now();
    uint64_t warm = before;
    Instant restart = begun + kRestartEvery;
    Instant new_master = begun + kNewMasterAfter;
    int restarts = 0;
    size_t masters = 0;
    while (Now() < begun + run_) {
      const auto due = static_cast<size_t>(std::chrono::duration<double>(Now() - begun).count() * kPerSecond);
      while (sent_ < due) Ask();
      if (Now() >= restart) {
        RestartProxy();
        ++restarts;
        restart += kRestartEvery;
      }
      if (Now() >= new_master) {
        manager_->SetMaster(kAphs[++masters % std::size(kAphs)]);
        new_master += kRestartEvery;
      }
      if (warm == before && Now() >= begun + kWarm) warm = ResidentKib();
      SleepFor(milliseconds(2));
    }
    const size_t under_load = sent_;
    const Instant quiet = Now();
    AwaitReady();
    const double back = std::chrono::duration<double>(Now() - quiet).count();
    const double used = CpuSeconds() - cpu;
    Await([this] { return ledger_.ended(sent_) == sent_; }, 2 * kCallTimeout);

    // When everything is back, a request to each vertical has to be answered.
    const size_t first_after = ok();
    for (size_t i = 0; i < asked_.size(); ++i) Ask();
    Await([this] { return ledger_.ended(sent_) == sent_; }, 2 * kCallTimeout);
    const size_t after = ok() - first_after;

    Print("sent", static_cast<double>(under_load));
    Print("restarts", restarts);
    Print("master-changes", static_cast<double>(masters));
    Print("answered-ok", static_cast<double>(first_after));
    for (const auto& [status, count] : ledger_.statuses()) {
      if (status != 0) Print("ended-with-" + std::to_string(status), static_cast<double>(count));
    }
    Print("delivered", static_cast<double>(ledger_.delivered(sent_)));
    Print("answers-too-late", static_cast<double>(too_late_));
    Print("not-ended", static_cast<double>(sent_ - ledger_.ended(sent_)));
    Print("ended-twice", static_cast<double>(ledger_.ended_twice(sent_)));
    Print("delivered-twice", static_cast<double>(ledger_.delivered_twice(sent_)));
    const size_t own = own_sent_;
    Print("asked-by-verticals", static_cast<double>(own));
    Print("asked-without-a-master", static_cast<double>(own_refused_));
    Print("answers-to-verticals", static_cast<double>(own_.delivered(own)));
    Print("answers-to-verticals-twice", static_cast<double>(own_.delivered_twice(own)));
    Print("verticals-ready", static_cast<double>(ready()), static_cast<double>(AllVerticals().size()));
    Print("ready-again-seconds", back, kBackWithin.count());
    Print("answered-when-ready", static_cast<double>(after), static_cast<double>(asked_.size()));
    const uint64_t resident = ResidentKib();
    Print("resident-kib-at-start", static_cast<double>(before));
    Print("resident-kib-after-10s", static_cast<double>(warm));
    Print("resident-kib-at-end", static_cast<double>(resident), static_cast<double>(warm + kMayGrowKib));
    Print("cpu-seconds", used);
    Print("log-lines", static_cast<double>(LogCounter::lines()));
    Print("log-lines-warning-or-worse", static_cast<double>(LogCounter::bad_lines()));

    Require(ledger_.ended(sent_) == sent_, "a request never ended");
    Require(ledger_.ended_twice(sent_) == 0, "a request ended twice");
    Require(ledger_.delivered_twice(sent_) == 0, "a request was delivered twice");
    Require(own_.delivered(own) > own / 2, "most requests of the verticals have to be answered");
    Require(own_.delivered_twice(own) == 0, "a vertical got an answer twice");
    Require(own_.foreign() == 0, "a vertical got an answer that it did not ask for");
    Require(ledger_.foreign() == 0, "a vertical got a request that nobody sent");
    Require(ready() == AllVerticals().size(), "a vertical did not come back");
    Require(after == asked_.size(), "a vertical that is ready did not answer");
    Require(first_after > under_load / 2, "most of the time the node has to be of use");
    if (kMemoryTells && run_ > kWarm) Require(resident <= warm + kMayGrowKib, "the memory grew");
    return held_;
  }

 private:
  template <class Condition>
  static void Await(const Condition& condition, milliseconds at_most) {
    const Instant end = Now() + at_most;
    while (!condition() && Now() < end) SleepFor(milliseconds(20));
  }
  void AwaitReady() {
    Await([this] { return ready() == AllVerticals().size(); }, kBackWithin);
  }
  size_t ready() const {
    size_t count = 0;
    for (const Vertical* vertical : AllVerticals()) count += agent_->Ready(*vertical) ? 1 : 0;
    return count;
  }
  size_t ok() const {
    const auto statuses = ledger_.statuses();
    const auto found = statuses.find(0);
    return found != statuses.end() ? found->second : 0;
  }

  void Ask() {
    const size_t number = sent_++;
    const Vertical& vertical = *asked_[number % asked_.size()];
    sim::Manager::SendRequest request;
    request.vertical = vertical.name;
    request.aph = kAphs[number / asked_.size() % std::size(kAphs)];
    request.member = vertical.types.empty() ? "RawPayloadMsg" : vertical.types.front().member;
    if (vertical.types.empty()) request.text = "payload: \"" + std::string(200, 'x') + "\"";
    request.correlation_id = std::to_string(number);
    request.timeout = kCallTimeout;
    const std::string error = manager_->Send(request, [this, number](const sim::HostAnswer& answer) {
      ledger_.Ended(number, answer.status.code());
    });
    Require(error.empty(), error.c_str());
  }

  void RestartProxy() {
    manager_->StopProxy();
    SleepFor(kProxyAway);
    manager_->StartProxy();
  }

  // Each vertical works on a thread of its own.
  void Receive(const Vertical& vertical, const rmqClientMessage& message) {
    BusHeader header = BusHeader::Of(message).value_or(BusHeader());
    if (message.msg_type == kRmqMpRpcResponse) own_.Delivered(header.correlation_id);
    if (message.msg_type != kRmqMpRpcRequest) return;
    const size_t number = ledger_.Delivered(header.correlation_id);
    std::string payload(reinterpret_cast<const char*>(message.payload), message.payload_len);
    work_.dispatcher().Post(
        [this, &vertical, number, header = std::move(header), payload = std::move(payload)]() mutable {
          if (!Send(vertical, kRmqClientRpcResponse, header.type_id, header.correlation_id, payload))
            ++too_late_;
          if (number % kOwnEvery != 0 || !AsksTheManager(vertical)) return;
          const std::string id = std::to_string(own_sent_);
          if (Send(vertical, kRmqClientRpcRequest, header.type_id, id, std::move(payload))) {
            ++own_sent_;
          } else {
            ++own_refused_;
          }
        });
  }

  void Require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "bench_soak: %s\n", what);
    held_ = false;
  }
  static void Print(const std::string& metric, double ours, double limit = 0) {
    PrintLine(kName, kCase, metric, ours, limit);
  }

  const seconds run_;
  const Endpoints endpoints_;
  Ledger ledger_;  // requests of the manager
  Ledger own_;     // requests of the verticals; "delivered" means answered
  AsioZemProvider work_;
  std::unique_ptr<sim::Manager> manager_;
  std::unique_ptr<AgentSide> agent_;
  std::vector<const Vertical*> asked_;
  size_t sent_ = 0;
  std::atomic<size_t> too_late_{0};
  std::atomic<size_t> own_sent_{0};
  std::atomic<size_t> own_refused_{0};
  bool held_ = true;
};

}  // namespace

bool RunRestarts(int seconds) { return Soak(seconds).Run(); }

}  // namespace zem::bench
