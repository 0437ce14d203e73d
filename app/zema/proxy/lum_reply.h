#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zem::zema {

/// A switch, and a transport zone to which it belongs.
struct TzDvs {
  std::string zone;
  std::string dvs;
  /// "KLN" or "NVS".
  std::string kind;
  bool operator==(const TzDvs&) const = default;
};

/// Splits the text at `separator`; there is always one piece more than separators.  The pieces point into
/// `text`.
std::vector<std::string_view> SplitTokens(std::string_view text, char separator);

/// Parses the members of "ok|a,b,..."; "ok" and "ok|" are an empty list.  With `keep_empty`, for lists in
/// which the position matters, empty members are kept; otherwise they are dropped.  Returns nothing when the
/// reply has another form.
std::optional<std::vector<std::string>> ParseOkList(std::string_view reply, bool keep_empty);

/// Parses the entries of "ok|zone:switch:kind|..."; an entry without exactly three members is skipped and
/// counted in `skipped`.  Returns nothing when the reply has another form.
std::optional<std::vector<TzDvs>> ParseTzToDvs(std::string_view reply, size_t* skipped);

/// The host's reply about the guest lane interface of a switch.
enum class GuestLane { kFound, kNotFound, kUnreadable };
GuestLane ParseGuestLane(std::string_view reply);

/// Parses a MAC address as a decimal number or as six hexadecimal pairs with colons, the first pair most
/// significant; returns nothing when it is neither or has more than 48 bits.
std::optional<uint64_t> ParseMac(std::string_view text);

}  // namespace zem::zema
