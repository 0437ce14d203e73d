#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zem::zema {

/// An interface in a migration file.
struct MigrationVnic {
  /// A kernel interface, or "<vm uuid>:<device>".
  std::string vnic_id;
  bool is_vtep = false;
  /// Of an endpoint, when "ip" does not say it.
  std::string ping_ip;
  std::string ip;
  std::optional<uint64_t> mac;
  std::optional<uint32_t> vtep_label;
  std::string group_id;
  /// The target of a move out.
  std::string port_group_name;

  // The port, for a move in.
  std::string logical_switch_id;
  std::string logical_port_id;
  std::string vif_id;
  std::string transport_zone_id;
  std::optional<uint32_t> vlan;
  std::vector<std::pair<uint32_t, uint32_t>> vlan_trunk_ranges;
  std::string uplink_teaming_name;
  std::string init_state;
  std::map<std::string, std::string> extra_configs;

  bool OfVm() const { return vnic_id.find(':') != std::string::npos; }
};

struct MigrationPnic {
  std::string device_name;
  std::string uplink_name;
};

struct MigrationHostSwitch {
  std::string id;
  std::string name;
  std::string mgmt_knl_ping_ip;
  std::string dvs_or_pln_name;
  std::vector<MigrationVnic> vnics;
  std::vector<MigrationPnic> pnics;

  const std::string& IdOrName() const { return id.empty() ? name : id; }
};

/// What a tool of the host wants moved.
struct MigrationRequest {
  /// Empty when the file has none.
  std::string request_id;
  /// Into the host switches, or out of them.
  bool in = false;
  /// Ports are made before their VIFs come; only on the way in.
  bool pre_create_dvports = true;
  std::vector<MigrationHostSwitch> host_switches;
};

/// A file with a request, as a tool of the host leaves it.
///
/// Threads: one.
class MigrationFile {
 public:
  static constexpr size_t kLongest = 1 << 20;

  explicit MigrationFile(std::string path) : path_(std::move(path)) {}

  enum class Read {
    kNone,           // empty, or not there: nothing is asked
    kUnreadable,     // `error` says why
    kIncomplete,     // the same; its id is known
    kNotIdentified,  // the same: an id of its own could not be written down
    kDone,
  };
  /// A file without an id gets one, written into it beside what it has.
  [[nodiscard]] Read Load(MigrationRequest* request, std::string* error);

  /// The content alone.
  [[nodiscard]] static Read Parse(const std::string& text, MigrationRequest* request, std::string* error);

  const std::string& path() const { return path_; }

 private:
  bool WriteId(const std::string& text, const std::string& id, std::string* error) const;

  const std::string path_;
};

/// What became of the last requests.
struct MigrationResult {
  std::string request_id;
  /// Of the file with the VMs.
  std::string vms_request_id;
  bool succeeded = false;
  /// Of the file with the VMs: each file has its own outcome, so that neither is taken for the other's.
  bool vms_succeeded = false;
};

/// False, with `result` as it was, when there is no readable one.
bool ReadMigrationResult(const std::string& path, MigrationResult* result);
/// `errors`: none is success.  Failures are told in the log.
void SaveMigrationResult(const std::string& path, const MigrationResult& ids,
                         const std::vector<std::string>& errors);

}  // namespace zem::zema
