#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zem::Tarvik {

/// A process of the host as its kernel lists it.
struct HostWorld {
  uint64_t world_id = 0;
  uint64_t cartel_id = 0;
  uint64_t parent_cartel_id = 0;
  uint64_t sched_group_id = 0;
  uint64_t world_group_id = 0;
  uint64_t cartel_group_id = 0;
  uint64_t session_id = 0;
  std::string world_name;
  std::string world_type;
  std::string world_state;
  std::string wait_reason;
  uint64_t used_time = 0;
  std::string command_line;
  std::string security_domain;
};

/// The reply to a request for all processes.
struct WorldReply {
  /// 0 is good.
  double status = 0;
  std::string error;
  /// Nothing in a reply that has no list.
  std::optional<std::vector<HostWorld>> worlds;
};

inline constexpr size_t kProxyHeaderSize = 16;
inline constexpr size_t kLongestProxyBody = 1'048'575;

/// The length that a message's header tells; nothing unless the 16 bytes are the word, a right-aligned number
/// and the line's end, and a body may be so long.
std::optional<size_t> ProxyBodyLength(std::string_view header);

/// Nothing for a text that is no JSON object with a numeric status.
std::optional<WorldReply> ParseWorldReply(std::string_view body);

}  // namespace zem::Tarvik
