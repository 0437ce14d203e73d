#pragma once

#include <boost/uuid/uuid.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace zem {

/// A random (version 4) uuid.
boost::uuids::uuid RandomUuid();

/// The lower-case text of a new random uuid.
std::string RandomUuidText();

std::string UuidText(const boost::uuids::uuid& uuid);

/// Nothing unless `text` is 36 characters of the usual form.
std::optional<boost::uuids::uuid> ParseUuid(std::string_view text);

/// As `ParseUuid`, for the 32 digits of a uuid with blanks and dashes at any place.
std::optional<boost::uuids::uuid> ParseUuidDigits(std::string_view text);

/// The two halves of a uuid as big-endian numbers, the way messages carry it.
std::pair<uint64_t, uint64_t> UuidHalves(const boost::uuids::uuid& uuid);
boost::uuids::uuid UuidFromHalves(uint64_t first, uint64_t second);

/// For any message with `first` and `second`.
template <class UuidMsg>
std::string UuidText(const UuidMsg& message) {
  return UuidText(UuidFromHalves(message.first(), message.second()));
}

template <class UuidMsg>
void SetUuid(const boost::uuids::uuid& uuid, UuidMsg* message) {
  const auto [first, second] = UuidHalves(uuid);
  message->set_first(first);
  message->set_second(second);
}

}  // namespace zem
