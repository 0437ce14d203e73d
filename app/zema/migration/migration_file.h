#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "framework/tasks/outcome.h"

namespace zem::zema {

/// An interface in a migration file.
struct MigrationVnic {
  /// A kernel interface, or "<vm uuid>:<device>".
  std::string vnic_id;
  bool is_vtep = false;
  /// The endpoint's address, used when "ip" is empty.
  std::string ping_ip;
  std::string ip;
  std::optional<uint64_t> mac;
  std::optional<uint32_t> vtep_label;
  std::string group_id;
  /// The target of a move out of a host switch.
  std::string port_group_name;

  // The port, for a move into a host switch.
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

/// A migration requested by a tool of the host.
struct MigrationRequest {
  /// Empty when the file has no id.
  std::string request_id;
  /// True for a move into the host switches, false for a move out of them.
  bool in = false;
  /// Whether ports are created before their VIFs arrive; only for a move in.
  bool pre_create_dvports = true;
  std::vector<MigrationHostSwitch> host_switches;
};

/// A file with a request, written by a tool of the host.
///
/// Threads: one.
class MigrationFile {
 public:
  static constexpr size_t kLongest = 1 << 20;

  explicit MigrationFile(std::string path) : path_(std::move(path)) {}

  enum class Read {
    kNone,           // empty or missing: no migration is requested
    kUnreadable,     // `error` has the reason
    kIncomplete,     // `error` has the reason; the id is known
    kNotIdentified,  // `error` has the reason: a new id could not be written to the file
    kDone,
  };
  /// Reads the request.  A file without an id gets one, which is added to its content.
  [[nodiscard]] Read Load(MigrationRequest* request, std::string* error);

  /// Parses the content of a file.
  [[nodiscard]] static Read Parse(const std::string& text, MigrationRequest* request, std::string* error);

  const std::string& path() const { return path_; }

 private:
  Outcome WriteId(const std::string& text, const std::string& id) const;

  const std::string path_;
};

/// The outcomes of the last requests.
struct MigrationResult {
  std::string request_id;
  /// The id in the file with the VMs.
  std::string vms_request_id;
  bool succeeded = false;
  /// The outcome of the file with the VMs: each file has its own, so that the two cannot be confused.
  bool vms_succeeded = false;
};

/// Returns false, with `result` unchanged, when there is no readable outcome.
bool ReadMigrationResult(const std::string& path, MigrationResult* result);
/// Empty `errors` mean success.  A failure to write is logged.
void SaveMigrationResult(const std::string& path, const MigrationResult& ids,
                         const std::vector<std::string>& errors);

}  // namespace zem::zema
