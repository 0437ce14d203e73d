#include "app/zema/state/realization_options.h"

#include <algorithm>
#include <array>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <charconv>
#include <filesystem>
#include <iterator>
#include <limits>
#include <optional>
#include <type_traits>
#include <variant>

#include "framework/log/log.h"
#include "framework/options/option_value.h"
#include "framework/options/realization_option_table.h"

namespace zem::zema {
namespace {

using boost::property_tree::ptree;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr int kLeastVifTimeout = 25;
constexpr int kVifTimeoutOfRecentHosts = 55;

using Member =
    std::variant<int RealizationOptions::*, bool RealizationOptions::*, std::string RealizationOptions::*>;

struct Setting {
  Tarvik::RealizationOptionKey key;
  Member member;
};

using O = RealizationOptions;
constexpr std::array kSettings = {
    Setting{"hostConfig.HostConfigReplyTimeout", &O::host_config_reply_timeout},
    Setting{"hostConfig.knlTypesToCheckOnRemovingPnic", &O::knl_types_to_check_on_removing_pnic},
    Setting{"hostConfig.dvsReadyPollTimeout", &O::dvs_ready_poll_timeout},
    Setting{"hostConfig.cklnHotSwapInitDelay", &O::ckln_hot_swap_init_delay},
    Setting{"hostConfig.cklnHotSwapRetryInterval", &O::ckln_hot_swap_retry_interval},
    Setting{"hostConfig.snicHostConfigReplyTimeout", &O::snic_host_config_reply_timeout},
    Setting{"hostConfig.hostSwitchModeStandardRealization", &O::host_switch_mode_standard_realization},
    Setting{"zema.HealthUpdateRetryCount", &O::health_update_retry_count},
    Setting{"zema.IfupTimeoutInSec", &O::ifup_timeout},
    Setting{"zema.runAsRoot", &O::run_as_root},
    Setting{"zema.group", &O::group},
    Setting{"zema.controller-info", &O::controller_info},
    Setting{"zema.preCheckHealth", &O::pre_check_health},
    Setting{"zema.logLevel", &O::log_level},
    Setting{"zema.onSmartNic", &O::on_smart_nic},
    Setting{"vtepDhcpIpTimeoutConfig.vtepDhcpIpFetchingTimeout", &O::vtep_dhcp_ip_fetching_timeout},
    Setting{"vtepOperations.snicVtepOperationsRpcTimeout", &O::snic_vtep_operations_rpc_timeout},
    Setting{"highPerformanceProfile.retryIntervalSec", &O::high_performance_retry_interval},
    Setting{"mp.vifOperationTimeout", &O::vif_operation_timeout},
    Setting{"mp.lsAckBatchInterval", &O::ls_ack_batch_interval},
    Setting{"mp.lsIncomingWaitInBatch", &O::ls_incoming_wait_in_batch},
    Setting{"mp.lsMsgBatchInterval", &O::ls_msg_batch_interval},
    Setting{"mp.lsMsgIncomingWaitInBatch", &O::ls_msg_incoming_wait_in_batch},
    Setting{"mp.lsDbRetryInterval", &O::ls_db_retry_interval},
    Setting{"resync.intervalInSec", &O::resync_interval},
    Setting{"resync.disabled", &O::resync_disabled},
    Setting{"resync.vmCheckFrequency", &O::resync_vm_check_frequency},
    Setting{"lum.noVxlanStack", &O::no_vxlan_stack},
    Setting{"lum.knlPingTryTimes", &O::knl_ping_try_times},
    Setting{"lum.opaqueNetworkApplyMax", &O::opaque_network_apply_max},
    Setting{"lum.opaqueNetworkDeleteMax", &O::opaque_network_delete_max},
    Setting{"lum.maxRetryZemaLumReady", &O::max_retry_zema_lum_ready},
    Setting{"guestLaneInterface.deviceName", &O::guest_lane_device_name},
    Setting{"guestLaneInterface.ip", &O::guest_lane_ip},
    Setting{"guestLaneInterface.netmask", &O::guest_lane_netmask},
    Setting{"scaleSimulation.state", &O::scale_simulation_state},
    Setting{"scaleSimulation.numLp", &O::scale_simulation_num_lp},
    Setting{"scaleSimulation.batchSize", &O::scale_simulation_batch_size},
    Setting{"scaleSimulation.batchIntervalSec", &O::scale_simulation_batch_interval},
    Setting{"scaleSimulation.tzUuid", &O::scale_simulation_tz_uuid},
    Setting{"scaleSimulation.lsList", &O::scale_simulation_ls_list},
};

static_assert(kSettings.size() == std::size(Tarvik::kRealizationOptionRows));

constexpr Tarvik::RealizationOptionKey kVifTimeout = "mp.vifOperationTimeout";

std::optional<std::string> GivenText(const ptree& tree, const Tarvik::OptionRow& row) {
  const auto text = tree.get_optional<std::string>(std::string(row.key));
  return text ? std::optional(*text) : std::nullopt;
}

void ReadOption(const ptree& tree, const Setting& setting, RealizationOptions* options) {
  const Tarvik::OptionRow& row = setting.key.row();
  const std::optional<std::string> given = GivenText(tree, row);
  std::visit(
      [&](auto member) {
        auto& value = options->*member;
        if constexpr (std::is_same_v<decltype(member), bool RealizationOptions::*>) {
          value = Tarvik::FlagValue(row, given);
        } else if constexpr (std::is_same_v<decltype(member), int RealizationOptions::*>) {
          // One that makes the file unusable may be any.
          value = static_cast<int>(std::clamp<int64_t>(Tarvik::NumberValue(row, given),
                                                       std::numeric_limits<int>::min(),
                                                       std::numeric_limits<int>::max()));
        } else {
          value = Tarvik::TextValue(row, given);
        }
      },
      setting.member);
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
  for (const Setting& setting : kSettings) ReadOption(tree, setting, &options);
  const auto vif_timeout = GivenText(tree, kVifTimeout.row());
  if (!vif_timeout || !Tarvik::IsNumber(*vif_timeout))
    options.vif_operation_timeout = DefaultVifTimeout(host);
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
