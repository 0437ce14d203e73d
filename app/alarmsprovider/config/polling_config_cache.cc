#include "app/alarmsprovider/config/polling_config_cache.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "framework/log/log.h"
#include "framework/node/platform_info.h"
#include "proto/covedb/monitoring_objects.pb.h"

namespace zem::Tarvik {
namespace {

namespace store = orlane::zem::covedb;

constexpr LogSource kLog{"tarvik", "alarmsprovider"};

struct ClientTypeName {
  std::string_view name;
  PollingConfigCache::ClientType type;
};
constexpr std::array kClientTypes = {
    ClientTypeName{"cvn-edge", PollingConfigCache::kEdge},
    ClientTypeName{"cvn-hv", PollingConfigCache::kHost},
    ClientTypeName{"cvn-mp-mpa", PollingConfigCache::kOther},
};

// Responses that summarize others: nobody collects them.
constexpr std::array<std::string_view, 2> kSkippedResponses = {
    "com.orlane.zem.management.agg.messaging.OverwriteStatsResponseMsg",
    "com.orlane.zem.management.agg.messaging.SummationStatsResponseMsg",
};

constexpr uint32_t kPollInterval = 1;

}  // namespace

PollingConfigCache::ClientType PollingConfigCache::ClientTypeOfNode() {
  if (IsEdgeNode()) return kEdge;
  if (IsHostNode() || IsHyperV()) return kHost;
  return kOther;
}

PollingConfigCache::PollingConfigCache(ClientType client_type) : client_type_(client_type) {}

bool PollingConfigCache::IsForThisNode(const std::string& client_type) const {
  ZLOG_DEBUG("PollingConfigCache:: Client type check for %s", client_type.c_str());
  return std::ranges::any_of(kClientTypes, [&](const ClientTypeName& row) {
    return row.name == client_type && row.type == client_type_;
  });
}

bool PollingConfigCache::Update(const store::DataCollectionConfigMsg& config) {
  if (!IsForThisNode(config.client_type())) {
    ZLOG_WARN("PollingConfigCache:: Ignoring as client_type %s not supported", config.client_type().c_str());
    return false;
  }
  if (std::ranges::find(kSkippedResponses, config.response_type()) != kSkippedResponses.end()) return false;
  const uint32_t interval = config.first_interval() != 0 ? config.first_interval() : config.second_interval();
  return Set(config.feature_stack_name(), interval, true);
}

bool PollingConfigCache::Update(const store::UserDefinedFeatureStackCollectionConfigurationMsg& config) {
  const auto& entries = config.client_configuration();
  const auto own = std::ranges::find_if(
      entries, [this](const auto& entry) { return entry.client_type() == client_type_; });
  if (own == entries.end()) return false;
  const PollingTable before = table();
  for (const store::CollectionIntervalMsg& interval : own->interval()) {
    if (interval.kind() != kPollInterval) break;
    Set(config.feature_stack_name(), interval.interval(), false);
  }
  return table() != before;
}

bool PollingConfigCache::SetCollectionEnabled(bool enabled) {
  const std::lock_guard lock(mutex_);
  const bool changed = collection_enabled_ != enabled;
  collection_enabled_ = enabled;
  return changed;
}

bool PollingConfigCache::Set(const std::string& name, uint32_t interval, bool is_default) {
  const std::lock_guard lock(mutex_);
  const auto known = table_.find(name);
  if (is_default && known != table_.end()) return false;
  if (is_default) {
    ZLOG_INFO("PollingConfigCache:: default polling config feature_stack_name %s, poll_interval %d",
              name.c_str(), static_cast<int>(interval));
  } else {
    ZLOG_INFO("PollingConfigCache:: userDefined polling config feature_stack_name %s, poll_interval %d",
              name.c_str(), static_cast<int>(interval));
  }
  if (known != table_.end() && known->second == interval) return false;
  table_[name] = interval;
  return true;
}

PollingTable PollingConfigCache::table() const {
  const std::lock_guard lock(mutex_);
  return table_;
}

bool PollingConfigCache::collection_enabled() const {
  const std::lock_guard lock(mutex_);
  return collection_enabled_;
}

}  // namespace zem::Tarvik
