#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zem::zema {

/// What the host says of one setting that all endpoints of a switch share.
struct VtepSettingReply {
  std::string value;
  /// "ok", or why it could not be applied.
  std::string status;
  bool operator==(const VtepSettingReply&) const = default;
};

/// What the host says of one endpoint.
struct VtepEntryReply {
  /// False when the entry has another form; everything else is empty then.
  bool valid = false;
  std::string device;
  std::string ipv4;
  std::string ipv6;
  std::string status;
  std::optional<uint64_t> mac;
  bool operator==(const VtepEntryReply&) const = default;
};

/// The host's answer to the endpoints of a switch.
struct VtepReply {
  enum class Form {
    kGood,
    /// The host refused the whole.
    kFailed,
    /// The host agreed, but its answer cannot be the one to this command.
    kUnexpected,
  };
  enum Setting { kDefaultGateway, kSubnetMask, kIpv6DefaultGateway, kIpv6PrefixLength, kSettings };

  Form form = Form::kFailed;
  std::array<VtepSettingReply, kSettings> settings;
  /// One for each endpoint that was asked for, in that order.
  std::vector<VtepEntryReply> entries;
  /// Of endpoints that nobody asked for, which the host therefore removed.
  std::vector<VtepEntryReply> deletions;
};

/// Reads "ok|<value>~<status> four times|<device>~<ip>~<ipv6>~<status>[~<mac>]|..." for `endpoints`
/// endpoints.
VtepReply ParseVtepReply(std::string_view reply, size_t endpoints);

}  // namespace zem::zema
