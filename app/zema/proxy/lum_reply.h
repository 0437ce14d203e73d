#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zem::zema {

/// A switch, named by a transport zone that it belongs to.
struct TzDvs {
  std::string zone;
  std::string dvs;
  /// "KLN" or "NVS".
  std::string kind;
  bool operator==(const TzDvs&) const = default;
};

/// The pieces between `separator`s; always one more than there are separators.  They point into `text`.
std::vector<std::string_view> SplitTokens(std::string_view text, char separator);

/// The members of "ok|a,b,..."; "ok" and "ok|" are an empty list.  An empty member stays when `keep_empty`,
/// for lists where the position counts, and is dropped otherwise.  Nothing when the reply has another form.
std::optional<std::vector<std::string>> ParseOkList(std::string_view reply, bool keep_empty);

/// The entries of "ok|zone:switch:kind|..."; an entry with other than three members is skipped and counted in
/// `skipped`.  Nothing when the reply has another form.
std::optional<std::vector<TzDvs>> ParseTzToDvs(std::string_view reply, size_t* skipped);

/// What the host says about the guest lane interface of a switch.
enum class GuestLane { kFound, kNotFound, kUnreadable };
GuestLane ParseGuestLane(std::string_view reply);

/// A MAC address as decimal number or as six hexadecimal pairs with colons, the first pair on top; nothing
/// when it is neither or has more than 48 bits.
std::optional<uint64_t> ParseMac(std::string_view text);

}  // namespace zem::zema
