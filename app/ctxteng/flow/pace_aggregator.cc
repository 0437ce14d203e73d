#include <chrono>
#include <exception>
#include <mutex>
#include <system_error>
#include <utility>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/flow/pace.h"
#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"
#include "proto/context/pace.pb.h"

namespace Ctxt::PaceClient {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

void Dump(const orlane::zem::pace::PaceContextInfoMsg& msg) {
  if (!ZLOG_WANTS(zem::kLogTrace)) return;
  ZLOG_TRACE("Zemi: ContextInfoMsg dump --- <");
  ZLOG_TRACE("%s", msg.ShortDebugString().c_str());
  ZLOG_TRACE("Zemi: > --- End ContextInfoMsg dump");
}

}  // namespace

void Pace::StartAggregator() {
  stop_.Reset();
  try {
    zem::NativeThread::Options options;
    options.name = "ctxt:aggregator";
    aggregator_thread_ = zem::NativeThread(std::move(options), [this] { AggregatorThread(); });
  } catch (const std::system_error&) {
    ZLOG_CTX_ERROR(612, "Zemi: Failed to start Aggregator, boost thread resource error");
    throw CtxtBoostThreadResourceError("AggregatorThread");
  }
  ZLOG_INFO("Zemi: Started Aggregator thread");
}

void Pace::AggregatorThread() {
  const zem::LoopThread loop("ctxt:aggregator", zem::LoopKind::kWorker);
  {
    const std::shared_lock lock(config_mutex_);
    ZLOG_INFO("Zemi: Aggregator thread wait interval: %ums, collection interval: %ums ", kWaitIntervalMs,
              settings_.collection_interval_ms);
  }
  try {
    uint32_t iter = 0;
    while (!stop_.WaitFor(std::chrono::milliseconds(kWaitIntervalMs))) {
      const zem::LoopStep step("aggregate and report");
      if (!Aggregate(&iter)) continue;
      Report();
      iter = 0;
    }
    ZLOG_INFO("Zemi: Aggregator thread interrupted, exiting");
    return;
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(607, "Zemi: Failed to aggregate and send info, error %s", error.what());
  } catch (...) {
    ZLOG_CTX_ERROR(607, "Zemi: Unknown exception while aggregating and sending");
  }
  ZLOG_INFO("Zemi: Done aggregator thread");
}

bool Pace::Aggregate(uint32_t* iter) {
  ZLOG_DEBUG("Zemi: Aggregator thread wokeup, starting aggregation");
  uint32_t interval_ms = 0;
  if (!TakeEvents(&interval_ms)) {
    ZLOG_DEBUG("Zemi: Data coll is disabled, not aggregating");
    return false;
  }
  const uint32_t to_collect = interval_ms / kWaitIntervalMs;
  if (*iter > to_collect) {
    ZLOG_INFO("Zemi: collInterval reduced to %ums, toCollectCount: %u, iterCount: %u", interval_ms,
              to_collect, *iter);
    *iter = to_collect - 1;
  }
  *iter += 1;
  if (*iter == to_collect) return true;
  ZLOG_DEBUG("Zemi: Done aggregation iteration %u", *iter);
  return false;
}

// The switch and what was collected are looked at together: what belongs to a collection that has been
// switched off must not come out with a later one.
bool Pace::TakeEvents(uint32_t* interval_ms) {
  const std::shared_lock lock(config_mutex_);
  if (std::exchange(aggregated_collection_, collection_) != collection_) aggregator_.Clear();
  if (!collection_enabled_) return false;
  aggregator_.Drain(*queues_);
  *interval_ms = settings_.collection_interval_ms;
  return true;
}

void Pace::Report() {
  try {
    report_builder_.Build(aggregator_.guests(), site_.Get(),
                          [this](const orlane::zem::pace::PaceContextInfoMsg& msg) {
                            // Switched off meanwhile: the rest of the report is void, too.
                            if (collection() != aggregated_collection_) return;
                            Dump(msg);
                            SendContextInfo(msg);
                          });
  } catch (const CtxtException& error) {
    ZLOG_CTX_ERROR(613, "Zemi: Failed to generate guest info msg, error %s", error.what());
    throw;
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(613, "Zemi: Error while generating guest info msg, error: %s", error.what());
    throw;
  } catch (...) {
    ZLOG_CTX_ERROR(613, "Zemi: Unknown exception while generating guest info msg");
    throw;
  }
  aggregator_.Clear();
  ZLOG_INFO("%s", statistics_.Text().c_str());
}

}  // namespace Ctxt::PaceClient
