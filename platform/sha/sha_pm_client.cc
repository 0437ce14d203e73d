#include "platform/sha/sha_pm_client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/endian/conversion.hpp>
#include <cstring>
#include <exception>
#include <optional>
#include <string>
#include <utility>

#include "platform/core/lib_log.h"
#include "platform/core/loop_monitor.h"
#include "proto/sha/sha.pb.h"

namespace zem::sha {
namespace {

using orlane::zem::sha::AgentReportMsg;

constexpr size_t kMaxReport = size_t{64} * 1024;

}  // namespace

ShaPmClient::ShaPmClient(std::string name, std::string sink_path)
    : name_(std::move(name)), sink_path_(std::move(sink_path)) {}

ShaPmClient::~ShaPmClient() { Stop(); }

void ShaPmClient::Start() {
  std::lock_guard lock(mutex_);
  if (running_) return;
  running_ = true;
  NativeThread::Options options;
  options.name = "sha-client";
  thread_ = NativeThread(std::move(options), [this] { Loop(); });
}

void ShaPmClient::Stop() {
  NativeThread joined;
  {
    std::lock_guard lock(mutex_);
    if (!running_) return;
    running_ = false;
    changed_.NotifyAll();
    joined = std::move(thread_);
  }
  joined.Join();
}

void ShaPmClient::RegisterCombinedMessageMetricCollection(const std::string& metric, Builder builder,
                                                          Completion done, uint32_t interval_s) {
  std::lock_guard lock(mutex_);
  const TimePoint due = Clock::Process().Now() + std::chrono::seconds(interval_s);
  metrics_[metric] = Metric{std::move(builder), std::move(done), interval_s, due};
  changed_.NotifyAll();
}

void ShaPmClient::UnregisterMetricCollectionAll() {
  std::lock_guard lock(mutex_);
  metrics_.clear();
}

void ShaPmClient::StartMetricCollection() {
  std::lock_guard lock(mutex_);
  collecting_ = true;
  changed_.NotifyAll();
}

void ShaPmClient::StopMetricCollection() {
  std::lock_guard lock(mutex_);
  collecting_ = false;
}

void ShaPmClient::StartProcessHeartbeat(uint32_t interval_s, uint32_t stale_after_s) {
  std::lock_guard lock(mutex_);
  heartbeat_interval_s_ = interval_s;
  stale_after_s_ = stale_after_s;
  heartbeat_due_ = Clock::Process().Now();
  changed_.NotifyAll();
}

void ShaPmClient::StopProcessHeartbeat() {
  std::lock_guard lock(mutex_);
  heartbeat_interval_s_ = 0;
}

uint64_t ShaPmClient::sent() const {
  std::lock_guard lock(mutex_);
  return sent_;
}

uint64_t ShaPmClient::dropped() const {
  std::lock_guard lock(mutex_);
  return dropped_;
}

// Builders and the socket are used without the lock, so a registration never waits for either.
void ShaPmClient::Loop() {
  const LoopThread loop("sha", LoopKind::kWorker);
  std::unique_lock lock(mutex_);
  while (running_) {
    const TimePoint now = Clock::Process().Now();
    TimePoint next = TimePoint::max();
    if (heartbeat_interval_s_ > 0) {
      if (heartbeat_due_ <= now) {
        heartbeat_due_ = now + std::chrono::seconds(heartbeat_interval_s_);
        const uint32_t interval_s = heartbeat_interval_s_;
        const uint32_t stale_after_s = stale_after_s_;
        lock.unlock();
        SendHeartbeat(interval_s, stale_after_s);
        lock.lock();
        continue;
      }
      next = heartbeat_due_;
    }
    std::optional<std::pair<std::string, Metric>> due;
    if (collecting_) {
      for (auto& [name, metric] : metrics_) {
        if (metric.due <= now) {
          metric.due = now + std::chrono::seconds(metric.interval_s);
          due.emplace(name, metric);
          break;
        }
        next = std::min(next, metric.due);
      }
    }
    if (due) {
      lock.unlock();
      Collect(due->first, due->second);
      lock.lock();
      continue;
    }
    if (next == TimePoint::max()) {
      changed_.Wait(lock);
    } else {
      changed_.WaitUntil(lock, next);
    }
  }
}

void ShaPmClient::Collect(const std::string& name, const Metric& metric) {
  const LoopStep step("metric");
  AgentReportMsg report;
  report.mutable_metric()->set_name(name);
  try {
    metric.builder(report.mutable_metric()->mutable_agents_metrics());
  } catch (const std::exception& error) {
    ZEM_LIB_LOG(Library::kSha, kLogError, "building metric %s failed: %s", name.c_str(), error.what());
    return;
  }
  Send(&report);
  if (metric.done) metric.done();
}

void ShaPmClient::SendHeartbeat(uint32_t interval_s, uint32_t stale_after_s) {
  const LoopStep step("heartbeat");
  AgentReportMsg report;
  report.mutable_heartbeat()->set_interval_s(interval_s);
  report.mutable_heartbeat()->set_stale_after_s(stale_after_s);
  Send(&report);
}

void ShaPmClient::Send(AgentReportMsg* report) {
  {
    std::lock_guard lock(mutex_);
    report->set_sequence(++sequence_);
  }
  report->set_agent(name_);
  report->set_pid(static_cast<uint32_t>(::getpid()));
  const std::string body = report->SerializeAsString();
  std::string datagram(4, '\0');
  boost::endian::store_big_u32(reinterpret_cast<unsigned char*>(datagram.data()),
                               static_cast<uint32_t>(body.size()));
  datagram += body;

  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  bool sent = false;
  if (datagram.size() <= kMaxReport && sink_path_.size() < sizeof(address.sun_path)) {
    std::memcpy(address.sun_path, sink_path_.data(), sink_path_.size());
    if (!socket_) socket_.Reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sent = ::sendto(socket_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL,
                    reinterpret_cast<const sockaddr*>(&address), sizeof(address)) >= 0;
  }
  if (!sent) ZEM_LIB_LOG(Library::kSha, kLogDebug, "report dropped: %s", std::strerror(errno));
  std::lock_guard lock(mutex_);
  ++(sent ? sent_ : dropped_);
}

}  // namespace zem::sha
