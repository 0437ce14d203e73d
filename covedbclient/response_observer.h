#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "covedbclient/client_log.h"
#include "platform/core/clock.h"
#include "platform/metrics/process_metrics.h"
#include "platform/rpc/client.h"

namespace zem::covedb {

/// Gathers the answers of one call and gives them, with the call's status, to one function at its end, and
/// counts the call among the metrics.  Made with `new` when the call is sent; deletes itself at its end.
template <class Response, class Gathered>
class ResponseObserver final : public rpc::CallObserver<Response> {
 public:
  using Gather = void (*)(const Response& response, Gathered& gathered);
  using Done = std::function<void(Gathered& gathered, const rpc::Status& status)>;

  /// `call` is its name among the metrics.  `received` is logged for each answer, unless null, and lives
  /// forever.
  ResponseObserver(const char* call, const char* received, Gather gather, Done done)
      : latency_(metrics::LatencyOf(metrics::MetricId::kStoreCalls, call)),
        errors_(metrics::CounterOf(metrics::MetricId::kStoreCallErrors, call)),
        received_(received),
        gather_(gather),
        done_(std::move(done)) {}

  void Next(const Response& response) override {
    if (received_ != nullptr) ZLOG_DEBUG("%s", received_);
    gather_(response, gathered_);
  }

  void CallStatus(const rpc::Status& status) override {
    const std::unique_ptr<ResponseObserver> self(this);
    latency_.Record(Clock::Process().Now() - sent_);
    if (!status.ok()) errors_.Add();
    if (done_) done_(gathered_, status);
  }

 private:
  metrics::Latency& latency_;
  metrics::Counter& errors_;
  const TimePoint sent_ = Clock::Process().Now();
  const char* const received_;
  const Gather gather_;
  const Done done_;
  Gathered gathered_{};
};

}  // namespace zem::covedb
