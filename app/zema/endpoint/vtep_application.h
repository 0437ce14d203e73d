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

/// What is left to do, and to tell, after the endpoints of all switches of a configuration.
struct VtepOutcome {
  /// Endpoints whose IPv4 address is still to come.
  std::vector<std::string> dhcp_devices;
  /// Endpoints whose IPv6 address is still to come: "dhcp" or "linklayer" by device.
  std::map<std::string, std::string> ipv6_kinds;
  std::set<uint32_t> endpoint_ids;
  size_t failed_endpoints = 0;
};

/// The host's number of the endpoint `device`; nothing when it has none.
using EndpointIdOf =
    std::function<std::optional<uint32_t>(const std::string& switch_name, const std::string& device)>;

/// Makes the endpoints of a switch what the manager wants, and the message what the host then has: addresses
/// as they came out, endpoints that do not exist taken out of it, those that the host removed put into it.
///
/// Threads: one, which is not a provider's.
/// Ownership: holds all by reference.
class VtepApplication {
 public:
  VtepApplication(LumCommands& lum, ErrorSink& errors, EndpointIdOf endpoint_id_of, VtepOutcome& outcome);

  /// False when anything failed; the texts are in the errors then.  `migrated` are the devices that have just
  /// become endpoints by migration.
  [[nodiscard]] bool ApplyVTEP(orlane::zem::switching::HostSwitchMsg* host_switch,
                               const std::vector<std::string>& migrated, bool upgrade);

 private:
  /// What is known of an endpoint of the message after the reply.
  enum class Fate {
    /// The host said nothing of it: its state in the message tells whether it is there.
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
