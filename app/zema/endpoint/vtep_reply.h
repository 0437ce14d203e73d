#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zem::zema {

/// The host's reply about one setting that all endpoints of a switch share.
struct VtepSettingReply {
  std::string value;
  /// "ok", or why the setting could not be applied.
  std::string status;
  bool operator==(const VtepSettingReply&) const = default;
};

/// The host's reply about one endpoint.
struct VtepEntryReply {
  /// False when the entry has another form; all other fields are then empty.
  bool valid = false;
  std::string device;
  std::string ipv4;
  std::string ipv6;
  std::string status;
  std::optional<uint64_t> mac;
  bool operator==(const VtepEntryReply&) const = default;
};

/// The host's answer to the command for the endpoints of a switch.
struct VtepReply {
  enum class Form {
    kGood,
    /// The host refused the whole command.
    kFailed,
    /// The host agreed, but its answer does not fit this command.
    kUnexpected,
  };
  enum Setting { kDefaultGateway, kSubnetMask, kIpv6DefaultGateway, kIpv6PrefixLength, kSettings };

  Form form = Form::kFailed;
  std::array<VtepSettingReply, kSettings> settings;
  /// One entry for each requested endpoint, in the order of the request.
  std::vector<VtepEntryReply> entries;
  /// Entries for endpoints that were not requested, which the host therefore removed.
  std::vector<VtepEntryReply> deletions;
};

/// Parses "ok|<value>~<status> four times|<device>~<ip>~<ipv6>~<status>[~<mac>]|..." for `endpoints`
/// endpoints.
VtepReply ParseVtepReply(std::string_view reply, size_t endpoints);

}  // namespace zem::zema
