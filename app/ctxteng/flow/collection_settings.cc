#include "app/ctxteng/flow/collection_settings.h"

#include <algorithm>
#include <limits>

#include "framework/log/log.h"
#include "proto/context/agent_config.pb.h"

namespace Ctxt::PaceClient {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};
constexpr uint32_t kMinuteMs = 60000;

}  // namespace

void CollectionSettings::Take(const orlane::zem::context::ContextHostConfigMsg& config) {
  if (config.has_collection_interval()) {
    collection_interval_ms =
        kMinuteMs * std::clamp<uint32_t>(config.collection_interval(), 1,
                                         std::numeric_limits<uint32_t>::max() / kMinuteMs);
  }
  context_process_name = {config.context_process_name().begin(), config.context_process_name().end()};
  context_process_hash = {config.context_process_hash().begin(), config.context_process_hash().end()};
  context_user_sid = {config.context_user_sid().begin(), config.context_user_sid().end()};
  context_user_uid.clear();
  for (const int32_t uid : config.context_user_uid()) context_user_uid.push_back(std::to_string(uid));
  ZLOG_INFO(
      "Zemi: Initialize Data Collection Enabled: %s, Interval: %u Process Name List: %lu,            Process "
      "Hash List: %lu, Filter User List: %lu, Filter User Id List: %lu",
      config.enabled_collection() ? "true" : "false", collection_interval_ms, context_process_name.size(),
      context_process_hash.size(), context_user_sid.size(), context_user_uid.size());
}

}  // namespace Ctxt::PaceClient
