#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "platform/core/condition.h"
#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"

namespace orlane::zem::sha {
class AgentReportMsg;
class AgentsMetricsMsg;
}  // namespace orlane::zem::sha

namespace zem::sha {

/// Reports this process's heartbeat and metrics to the node's health service.
///
/// Threads: all operations from any thread; builders run on the client's own.  Nothing waits for the sink.
class ShaPmClient {
 public:
  using Builder = std::function<void(orlane::zem::sha::AgentsMetricsMsg*)>;
  using Completion = std::function<void()>;

  static constexpr const char* kSinkPath = "/var/run/orlane/zem-sha/agents";

  explicit ShaPmClient(std::string name, std::string sink_path = kSinkPath);
  ~ShaPmClient();

  void Start();
  void Stop();

  /// `builder` fills one message every `interval_s` while collection runs; `done`, which may be null, runs
  /// after each.
  void RegisterCombinedMessageMetricCollection(const std::string& metric, Builder builder, Completion done,
                                               uint32_t interval_s);
  void UnregisterMetricCollectionAll();
  void StartMetricCollection();
  void StopMetricCollection();
  void StartProcessHeartbeat(uint32_t interval_s, uint32_t stale_after_s);
  void StopProcessHeartbeat();

  uint64_t sent() const;
  uint64_t dropped() const;

 private:
  struct Metric {
    Builder builder;
    Completion done;
    uint32_t interval_s;
    TimePoint due;
  };

  void Loop();
  void Collect(const std::string& name, const Metric& metric);
  void SendHeartbeat(uint32_t interval_s, uint32_t stale_after_s);
  void Send(orlane::zem::sha::AgentReportMsg* report);

  const std::string name_;
  const std::string sink_path_;

  mutable std::mutex mutex_;  // guards all below but the thread's own socket
  Condition changed_;
  bool running_ = false;
  bool collecting_ = false;
  std::map<std::string, Metric> metrics_;
  uint32_t heartbeat_interval_s_ = 0;
  uint32_t stale_after_s_ = 0;
  TimePoint heartbeat_due_;
  uint64_t sequence_ = 0;
  uint64_t sent_ = 0;
  uint64_t dropped_ = 0;
  NativeThread thread_;

  UniqueFd socket_;
};

}  // namespace zem::sha
