#pragma once

#include <cstdint>
#include <string_view>

namespace zem::Tarvik {

inline constexpr uint32_t kFileMode = 1;
inline constexpr uint32_t kStreamMode = 2;
inline constexpr uint32_t kDvfilterType = 5;

/// A kind of capture point, as the manager numbers it.
struct CapturePoint {
  uint32_t type;
  /// The exporter's parameter that names the point.
  const char* parameter;
  const char* not_found;
};

/// Returns null for a number that is none.
const CapturePoint* FindCapturePoint(uint32_t type);

/// Returns the number of an operator's word; that of no kind for an unknown word.
uint32_t CapturePointType(std::string_view word);

/// The exporter's word of a direction or stage; null for a number that is none.
const char* DirectionWord(uint32_t direction);
const char* StageWord(uint32_t stage);

}  // namespace zem::Tarvik
