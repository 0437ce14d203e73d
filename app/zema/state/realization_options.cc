#include "app/zema/state/realization_options.h"

#include <algorithm>
#include <array>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <charconv>
#include <filesystem>
#include <optional>
#include <variant>

#include "framework/log/log.h"

namespace zem::zema {
namespace {

using boost::property_tree::ptree;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr int kLeastVifTimeout = 25;
constexpr int kVifTimeoutOfRecentHosts = 55;

using Member =
    std::variant<int RealizationOptions::*, bool RealizationOptions::*, std::string RealizationOptions::*>;

struct OptionRow {
  const char* key;
  Member member;
};

using O = RealizationOptions;
constexpr std::array kOptions = {
    OptionRow{"hostConfig.HostConfigReplyTimeout", &O::host_config_reply_timeout},
    OptionRow{"hostConfig.knlTypesToCheckOnRemovingPnic", &O::knl_types_to_check_on_removing_pnic},
    OptionRow{"hostConfig.dvsReadyPollTimeout", &O::dvs_ready_poll_timeout},
    OptionRow{"hostConfig.cklnHotSwapInitDelay", &O::ckln_hot_swap_init_delay},
    OptionRow{"hostConfig.cklnHotSwapRetryInterval", &O::ckln_hot_swap_retry_interval},
    OptionRow{"hostConfig.snicHostConfigReplyTimeout", &O::snic_host_config_reply_timeout},
    OptionRow{"hostConfig.hostSwitchModeStandardRealization", &O::host_switch_mode_standard_realization},
    OptionRow{"zema.HealthUpdateRetryCount", &O::health_update_retry_count},
    OptionRow{"zema.IfupTimeoutInSec", &O::ifup_timeout},
    OptionRow{"zema.runAsRoot", &O::run_as_root},
    OptionRow{"zema.group", &O::group},
    OptionRow{"zema.controller-info", &O::controller_info},
    OptionRow{"zema.preCheckHealth", &O::pre_check_health},
    OptionRow{"zema.logLevel", &O::log_level},
    OptionRow{"zema.onSmartNic", &O::on_smart_nic},
    OptionRow{"vtepDhcpIpTimeoutConfig.vtepDhcpIpFetchingTimeout", &O::vtep_dhcp_ip_fetching_timeout},
    OptionRow{"vtepOperations.snicVtepOperationsRpcTimeout", &O::snic_vtep_operations_rpc_timeout},
    OptionRow{"highPerformanceProfile.retryIntervalSec", &O::high_performance_retry_interval},
    OptionRow{"mp.vifOperationTimeout", &O::vif_operation_timeout},
    OptionRow{"mp.lsAckBatchInterval", &O::ls_ack_batch_interval},
    OptionRow{"mp.lsIncomingWaitInBatch", &O::ls_incoming_wait_in_batch},
    OptionRow{"mp.lsMsgBatchInterval", &O::ls_msg_batch_interval},
    OptionRow{"mp.lsMsgIncomingWaitInBatch", &O::ls_msg_incoming_wait_in_batch},
    OptionRow{"mp.lsDbRetryInterval", &O::ls_db_retry_interval},
    OptionRow{"resync.intervalInSec", &O::resync_interval},
    OptionRow{"resync.disabled", &O::resync_disabled},
    OptionRow{"resync.vmCheckFrequency", &O::resync_vm_check_frequency},
    OptionRow{"lum.noVxlanStack", &O::no_vxlan_stack},
    OptionRow{"lum.knlPingTryTimes", &O::knl_ping_try_times},
    OptionRow{"lum.opaqueNetworkApplyMax", &O::opaque_network_apply_max},
    OptionRow{"lum.opaqueNetworkDeleteMax", &O::opaque_network_delete_max},
    OptionRow{"lum.maxRetryZemaLumReady", &O::max_retry_zema_lum_ready},
    OptionRow{"guestLaneInterface.deviceName", &O::guest_lane_device_name},
    OptionRow{"guestLaneInterface.ip", &O::guest_lane_ip},
    OptionRow{"guestLaneInterface.netmask", &O::guest_lane_netmask},
    OptionRow{"scaleSimulation.state", &O::scale_simulation_state},
    OptionRow{"scaleSimulation.numLp", &O::scale_simulation_num_lp},
    OptionRow{"scaleSimulation.batchSize", &O::scale_simulation_batch_size},
    OptionRow{"scaleSimulation.batchIntervalSec", &O::scale_simulation_batch_interval},
    OptionRow{"scaleSimulation.tzUuid", &O::scale_simulation_tz_uuid},
    OptionRow{"scaleSimulation.lsList", &O::scale_simulation_ls_list},
};

// A value of the wrong type leaves the default.
void ReadOption(const ptree& tree, const OptionRow& row, RealizationOptions* options) {
  std::visit(
      [&](auto member) {
        auto& value = options->*member;
        value = tree.get(row.key, value);
      },
      row.member);
}

std::array<int, 3> VersionNumbers(const std::string& version) {
  std::array<int, 3> numbers{};
  const char* at = version.data();
  const char* const end = at + version.size();
  for (int& number : numbers) {
    const auto parsed = std::from_chars(at, end, number);
    if (parsed.ec != std::errc()) break;
    at = parsed.ptr;
    if (at == end || *at != '.') break;
    ++at;
  }
  return numbers;
}

int DefaultVifTimeout(const HostVersion& host) {
  const bool recent = VersionNumbers(host.version) >= std::array{6, 5, 0} &&
                      host.product.find("6.5.0 Update 1") == std::string::npos;
  return recent ? kVifTimeoutOfRecentHosts : kLeastVifTimeout;
}

bool ParseArguments(const std::vector<std::string>& arguments, std::string* file,
                    RealizationOptions* options) {
  constexpr std::string_view kConfig = "-config=";
  for (const std::string& argument : arguments) {
    if (argument.rfind(kConfig, 0) == 0) {
      *file = argument.substr(kConfig.size());
    } else if (argument == "-d") {
      options->debug = true;
    } else if (argument == "clear") {
      options->clear = true;
    } else if (argument == "-f") {
      options->force = true;
    } else {
      ZLOG_ERROR("41011", "[%s] Invalid input from command line: [%s]", __func__, argument.c_str());
      return false;
    }
  }
  return true;
}

bool IsValid(const RealizationOptions& options) {
  if (options.ls_incoming_wait_in_batch > options.ls_ack_batch_interval) {
    ZLOG_ERROR("41013", "[%s] lsIncomingWaitInBatch(%d) cannot be greater than lsAckBatchInterval(%d)",
               __func__, options.ls_incoming_wait_in_batch, options.ls_ack_batch_interval);
    return false;
  }
  if (options.ls_msg_incoming_wait_in_batch > options.ls_msg_batch_interval) {
    ZLOG_ERROR("41014", "[%s] lsMsgIncomingWaitInBatch(%d) cannot be greater than lsMsgBatchInterval(%d)",
               __func__, options.ls_msg_incoming_wait_in_batch, options.ls_msg_batch_interval);
    return false;
  }
  if (options.opaque_network_apply_max < 1 || options.opaque_network_delete_max < 1) {
    ZLOG_ERROR("41015", "[%s] opaqueNetworkApplyMax(%d) and opaqueNetworkDeleteMax(%d) cannot be less than 1",
               __func__, options.opaque_network_apply_max, options.opaque_network_delete_max);
    return false;
  }
  if (options.knl_ping_try_times < 1) {
    ZLOG_INFO("[%s] knlPingTryTimes(%d): no ping after a migration", __func__, options.knl_ping_try_times);
  }
  return true;
}

std::optional<RealizationOptions> ReadOptions(const std::string& file, RealizationOptions options,
                                              const HostVersion& host) {
  options.vif_operation_timeout = DefaultVifTimeout(host);
  if (options.clear) return options;
  std::error_code error;
  const auto size = std::filesystem::file_size(file, error);
  if (error || size == 0) {
    ZLOG_ERROR("41006", "[%s] ConfigFile [%s] is empty or does not exist", __func__, file.c_str());
    return std::nullopt;
  }
  ptree tree;
  try {
    boost::property_tree::read_json(file, tree);
  } catch (const std::exception& e) {
    ZLOG_ERROR("41020", "[%s] Wrong json format ConfigFile [%s] ", __func__, file.c_str());
    ZLOG_DEBUG("%s", e.what());
    return std::nullopt;
  }
  for (const OptionRow& row : kOptions) ReadOption(tree, row, &options);
  options.vif_operation_timeout = std::max(options.vif_operation_timeout, kLeastVifTimeout);
  if (!IsValid(options)) return std::nullopt;
  return options;
}

}  // namespace

int OptionsStore::Parse(const std::vector<std::string>& arguments, const HostVersion& host) {
  RealizationOptions options;
  std::string file = file_;
  if (!ParseArguments(arguments, &file, &options)) return -1;
  auto read = ReadOptions(file, options, host);
  if (!read) return -1;
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  file_ = file;
  host_ = host;
  options_ = std::move(*read);
  return 0;
}

std::string OptionsStore::Reload() {
  ZLOG_INFO("Reloading options from config file...");
  std::string file;
  HostVersion host;
  {
    const Synchronizer lock(lock_, __FILE__, __LINE__);
    file = file_;
    host = host_;
  }
  auto read = ReadOptions(file, {}, host);
  if (!read) {
    constexpr const char* kFailed = "Failed to reload options from config file";
    ZLOG_WARN("%s", kFailed);
    return kFailed;
  }
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  std::swap(options_, *read);
  ZLOG_INFO("Reloaded options from config file");
  return {};
}

void OptionsStore::Replace(RealizationOptions options) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  options_ = std::move(options);
}

RealizationOptions OptionsStore::Snapshot() {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  return options_;
}

}  // namespace zem::zema
