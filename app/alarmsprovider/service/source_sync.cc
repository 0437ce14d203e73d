#include "app/alarmsprovider/service/source_sync.h"

#include <boost/algorithm/string/join.hpp>
#include <chrono>
#include <utility>

#include "app/alarmsprovider/collector/node_id_cache.h"
#include "app/alarmsprovider/link/limits.h"
#include "framework/log/log.h"
#include "mpaclient/bus/bus_record.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "proto/monitoring/monitoring.pb.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "alarmsprovider"};

constexpr auto kRound = std::chrono::seconds(10);

}  // namespace

SourceSync::SourceSync(AsioZemProvider& provider, CollectorSender& sender, NodeIdCache& ids)
    : provider_(provider), sender_(sender), ids_(ids) {}

SourceSync::~SourceSync() {
  if (timer_) timer_->Cancel();
}

void SourceSync::Start() {
  ZLOG_INFO("Starting Source Sync request timer");
  Round();
  const std::lock_guard lock(mutex_);
  if (stopped_) return;
  timer_ = provider_.timers().ScheduleRepeated(
      kRound,
      [self = weak_from_this()] {
        if (const auto alive = self.lock()) alive->Round();
      },
      TimerOptions::Default);
}

void SourceSync::Stop() {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  if (const auto timer = std::exchange(timer_, nullptr)) timer->Cancel();
}

void SourceSync::AddSourceId(const std::string& id) {
  const std::lock_guard lock(mutex_);
  if (id.size() > kMaxIdBytes || new_source_ids_.size() + pending_source_ids_.size() >= kMaxSourceIds) {
    ZLOG_WARN("Source id of %lu bytes is not kept: too long, or too many sources",
              static_cast<unsigned long>(id.size()));
    return;
  }
  new_source_ids_.insert(id);
}

void SourceSync::Round() {
  const std::lock_guard lock(mutex_);
  if (stopped_) return;
  ZLOG_DEBUG("SourceSync callback invoked");
  pending_source_ids_.merge(new_source_ids_);
  new_source_ids_.clear();
  if (pending_source_ids_.empty()) return;
  orlane::zem::monitoring::CollectorMpMsg message;
  message.set_msg_type(CollectorMpType::kSourceSync);
  auto* const request = message.mutable_source_sync_request();
  SetNodeIds(ids_, request);
  for (const std::string& id : pending_source_ids_) request->add_source_id(id);
  const std::string ids = boost::algorithm::join(pending_source_ids_, " ");
  correlation_id_ = RandomUuidText();
  if (sender_.SendToCollector(message, correlation_id_, kRmqClientRpcRequest)) {
    ZLOG_INFO("Sent SourceSync req with correlation-id: %s for source-ids: %s", correlation_id_.c_str(),
              ids.c_str());
  } else {
    ZLOG_INFO("Error sending source sync req for source-ids: %s", ids.c_str());
  }
}

void SourceSync::HandleResponse(const std::string& correlation_id, bool result) {
  const std::lock_guard lock(mutex_);
  if (!result || correlation_id_.empty() || correlation_id != correlation_id_) return;
  correlation_id_.clear();
  pending_source_ids_.clear();
}

}  // namespace zem::Tarvik
