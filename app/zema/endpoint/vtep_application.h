#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "app/zema/endpoint/vtep_reply.h"

namespace orlane::zem::switching {
class HostSwitchMsg;
class VtepMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

class ErrorSink;
class LumCommands;

/// What remains to be done and reported once the endpoints of all switches of a configuration have been
/// applied.
struct VtepOutcome {
  /// Endpoints that have yet to get an IPv4 address.
  std::vector<std::string> dhcp_devices;
  /// Endpoints that have yet to get an IPv6 address: "dhcp" or "linklayer" by device.
  std::map<std::string, std::string> ipv6_kinds;
  std::set<uint32_t> endpoint_ids;
  size_t failed_endpoints = 0;
};

/// Returns the host's number of the endpoint `device`, or nothing when it has none.
using EndpointIdOf =
    std::function<std::optional<uint32_t>(const std::string& switch_name, const std::string& device)>;

/// Makes the endpoints of a switch match the manager's configuration, and then makes the message match the
/// host: sets the actual addresses, removes endpoints that do not exist and adds those that the host removed.
///
/// Threads: one, which is not a provider's.
/// Ownership: holds all arguments by reference.
class VtepApplication {
 public:
  VtepApplication(LumCommands& lum, ErrorSink& errors, EndpointIdOf endpoint_id_of, VtepOutcome& outcome);

  /// Returns false when any step failed; the texts are then in the errors.  `migrated` are the devices that
  /// have just become endpoints by migration.
  [[nodiscard]] bool ApplyVTEP(orlane::zem::switching::HostSwitchMsg* host_switch,
                               const std::vector<std::string>& migrated, bool upgrade);

 private:
  /// What the reply says about an endpoint of the message.
  enum class Fate {
    /// The reply does not mention the endpoint; the state in the message decides whether it exists.
    kUnknown,
    kThere,
    kFailed,
  };

  bool Send(const orlane::zem::switching::HostSwitchMsg& host_switch,
            const std::vector<std::string>& migrated, bool upgrade, std::string* reply);
  bool TakeReply(const std::string& reply, orlane::zem::switching::HostSwitchMsg* host_switch,
                 std::vector<Fate>* fates);
  bool TakeSettings(const VtepReply& reply, orlane::zem::switching::HostSwitchMsg* host_switch);
  bool TakeEntry(const VtepEntryReply& entry, const orlane::zem::switching::HostSwitchMsg& host_switch,
                 orlane::zem::switching::VtepMsg* vtep);
  void TakeAddresses(const VtepEntryReply& entry, const orlane::zem::switching::HostSwitchMsg& host_switch,
                     orlane::zem::switching::VtepMsg* vtep);
  bool TakeDeletion(const VtepEntryReply& entry, orlane::zem::switching::HostSwitchMsg* host_switch);
  void RefuseEntry(const std::string& reply);
  bool Refuse(const std::string& text);
  static void RemoveNonExistingVteps(const std::vector<Fate>& fates,
                                     orlane::zem::switching::HostSwitchMsg* host_switch);
  void SortByEndpointId(orlane::zem::switching::HostSwitchMsg* host_switch);

  LumCommands& lum_;
  ErrorSink& errors_;
  const EndpointIdOf endpoint_id_of_;
  VtepOutcome& outcome_;
};

}  // namespace zem::zema
