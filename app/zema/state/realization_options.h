#pragma once

#include <string>
#include <vector>

#include "framework/tasks/synchronizable.h"

namespace zem::zema {

/// The options that "/etc/orlane/zem-tarvik/zema.json" can set.  Times are in seconds unless stated
/// otherwise; "unset" leaves the decision to the part concerned.
struct RealizationOptions {
  static constexpr const char* kUnset = "unset";

  int host_config_reply_timeout = 20;
  std::string knl_types_to_check_on_removing_pnic = "management";
  int dvs_ready_poll_timeout = 90;
  int ckln_hot_swap_init_delay = 5;
  int ckln_hot_swap_retry_interval = 30;
  int snic_host_config_reply_timeout = 120;
  std::string host_switch_mode_standard_realization = "auto";

  int health_update_retry_count = 5;
  int ifup_timeout = 60;
  bool run_as_root = false;
  std::string group = "cfgagent";
  bool controller_info = false;
  bool pre_check_health = true;
  std::string log_level = kUnset;
  /// The agent runs on a smart NIC, where there is no host management daemon to connect to.
  bool on_smart_nic = false;

  int vtep_dhcp_ip_fetching_timeout = 8;
  int snic_vtep_operations_rpc_timeout = 120;
  int high_performance_retry_interval = 60;

  /// Never below 25.
  int vif_operation_timeout = 25;
  /// With 0, each acknowledgement is sent on its own.
  int ls_ack_batch_interval = 0;
  int ls_incoming_wait_in_batch = 0;
  int ls_msg_batch_interval = 60;
  int ls_msg_incoming_wait_in_batch = 5;
  int ls_db_retry_interval = 30;

  int resync_interval = 3600;
  bool resync_disabled = false;
  /// How many iterations of the resync pass between two checks of the VMs.
  int resync_vm_check_frequency = 200;

  std::string no_vxlan_stack = kUnset;
  int knl_ping_try_times = 4;
  int opaque_network_apply_max = 1000;
  int opaque_network_delete_max = 1000;
  int max_retry_zema_lum_ready = 60;

  std::string guest_lane_device_name;
  std::string guest_lane_ip;
  std::string guest_lane_netmask;

  std::string scale_simulation_state;
  int scale_simulation_num_lp = 2;
  int scale_simulation_batch_size = 18;
  int scale_simulation_batch_interval = 12;
  std::string scale_simulation_tz_uuid;
  std::string scale_simulation_ls_list;

  // From the argument vector.
  bool debug = false;
  bool clear = false;
  bool force = false;

  bool operator==(const RealizationOptions&) const = default;
};

/// What the host reports about itself, as far as the options depend on it.
struct HostVersion {
  std::string version;  // "7.0.3"
  std::string product;  // what "orlane -l" prints
};

/// The options in force: one record, always replaced as a whole.
///
/// Threads: all operations from any thread.
class OptionsStore {
 public:
  static constexpr const char* kDefaultFile = "/etc/orlane/zem-tarvik/zema.json";

  explicit OptionsStore(std::string file = kDefaultFile) : file_(std::move(file)) {}

  /// Puts a whole record in force instead of reading one.
  void Replace(RealizationOptions options);

  /// Reads the file, or what the arguments name instead ("-config=PATH", "-d", "clear", "-f").  Returns 0, or
  /// -1 with the options unchanged.
  [[nodiscard]] int Parse(const std::vector<std::string>& arguments, const HostVersion& host);

  /// Reads the file again, for the host of the last Parse.  Returns an empty text on success, otherwise the
  /// error.
  [[nodiscard]] std::string Reload();

  /// Returns a copy of the options.
  RealizationOptions Snapshot();

 private:
  std::string file_;
  Synchronizable lock_;  // guards what follows
  HostVersion host_;
  RealizationOptions options_;
};

}  // namespace zem::zema
