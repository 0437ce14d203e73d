#pragma once

#include <cstdint>
#include <string>

namespace IdsEvtEng {

/// The seconds from 1970-01-01 to `timestamp`, in 32 bits; 0, after a log line, for a text that is no time.
/// Fractions and zones behind the time are not looked at.
uint32_t EpochSeconds(const std::string& timestamp);

}  // namespace IdsEvtEng
