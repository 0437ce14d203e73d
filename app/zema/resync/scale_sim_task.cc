#include "app/zema/resync/scale_sim_task.h"

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include "app/zema/ports/vif_request.h"
#include "app/zema/state/health_record.h"
#include "app/zema/state/realization_options.h"
#include "framework/log/log.h"
#include "framework/node/host_identity.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr int kTries = 20;
constexpr int kTrySeconds = 6;

// Splits a comma-separated list.
std::vector<std::string> SwitchesOf(const std::string& list) {
  std::vector<std::string> switches;
  boost::split(switches, list, boost::is_any_of(", "), boost::token_compress_on);
  std::erase(switches, "");
  return switches;
}

}  // namespace

void ScaleSimTask::Run() {
  const RealizationOptions options = settings_.options->Snapshot();
  const std::vector<std::string> switches = SwitchesOf(options.scale_simulation_ls_list);
  ZLOG_INFO("ScaleSimTask started with numLp = %d , batchSize = %d , batchInterval = %d , lsList = %lu",
            options.scale_simulation_num_lp, options.scale_simulation_batch_size,
            options.scale_simulation_batch_interval, static_cast<unsigned long>(switches.size()));
  const HealthRecord& health = *settings_.health;
  if (!Await("ScaleSimTask timeout waiting for MPA connection. Ending ScaleSimTask.", [&health] {
        if (health.mpa_connected()) return true;
        ZLOG_INFO("ScaleSimTask waiting for MPA connection.... isMpaConnected = %d isZemaHealthy = %d",
                  health.mpa_connected(), health.healthy());
        return false;
      })) {
    return;
  }
  if (!Await("hostId found not set after multiple wait and checks. Ending ScaleSimTask.", [this] {
        if (settings_.host->id()) return true;
        ZLOG_INFO("ScaleSimTask waiting for hostId to be set......");
        return false;
      })) {
    return;
  }
  if (!switches.empty()) AddRequests(options, switches);
  ZLOG_INFO("Ending ScaleSimTask");
}

template <class Ready>
bool ScaleSimTask::Await(const char* too_late, const Ready& ready) {
  for (int i = 0; i < kTries; ++i) {
    if (ready()) return true;
    if (!settings_.pause(std::chrono::seconds(kTrySeconds))) return false;
  }
  if (ready()) return true;
  ZLOG_ERROR("41546", "%s", too_late);
  return false;
}

void ScaleSimTask::AddRequests(const RealizationOptions& options, const std::vector<std::string>& switches) {
  const auto count = static_cast<unsigned>(std::max(options.scale_simulation_num_lp, 0));
  const auto batch = static_cast<unsigned>(std::max(options.scale_simulation_batch_size, 1));
  for (unsigned i = 0; i < count; ++i) {
    if (i > 0 && i % batch == 0) {
      ZLOG_INFO("VIF Request count = %u, sleeping for %d secs", i, options.scale_simulation_batch_interval);
      if (!settings_.pause(std::chrono::seconds(options.scale_simulation_batch_interval))) return;
    }
    const auto now = Clock::Process().WallNow().time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now).count();
    auto request = std::make_shared<VifRequest>();
    request->op_code = VifRequest::kAttachToVifUuid;
    request->op_id = "scaleSim-" + std::to_string(seconds) + "-" + std::to_string(i);
    request->ls_id = switches[i % switches.size()];
    request->vif_id = "scaleSim-" + std::to_string(i) + "-" + request->ls_id;
    request->gcf_path = "knlnic";
    request->zone_id = options.scale_simulation_tz_uuid;
    ZLOG_INFO("Added VifRequest %s", request->ToString().c_str());
    settings_.add_request(std::move(request));
  }
}

}  // namespace zem::zema
