#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace zem::zema {

/// The manager's answer to a VIF request.
class MpRpcObj {
 public:
  virtual ~MpRpcObj() = default;

  std::string text;
  std::map<std::string, std::string> extra_configs;
  std::string init_state;
  int32_t vlan = -1;
  /// First and last VLAN of each range.
  std::vector<std::pair<uint32_t, uint32_t>> vlan_ranges;
  std::string uplink_teaming;
};

/// The result of an attach or a detach.
class PortAttached final : public MpRpcObj {
 public:
  /// The RPC id that the manager echoes; the key of the waiting call.
  std::string op_id;
  /// Empty on success.
  std::string error;
  std::string vif_id;
  std::string port_id;
  std::string switch_id;
  std::string zone_id;

  // Where the VIF was attached before.
  std::string old_switch_id;
  std::string old_port_id;
  std::string old_zone_id;
  std::string host_id;

  std::string gcf_path;
  std::string org;
  std::string project;
  std::string vpc;
};

}  // namespace zem::zema
