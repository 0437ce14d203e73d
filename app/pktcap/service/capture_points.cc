#include "app/pktcap/service/capture_points.h"

#include <algorithm>
#include <array>

namespace zem::Tarvik {
namespace {

constexpr std::array kPoints = {
    CapturePoint{1, "vnic", "Not found vnic"},
    CapturePoint{2, "knlnic", "Not found knlnic"},
    CapturePoint{3, "hwnic", "Not found hwnic"},
    CapturePoint{4, "vdrport", "Not found vdrPort"},
    CapturePoint{kDvfilterType, "dvfilter", "Not found dvfilter"},
    CapturePoint{6, "lport", "Not found lport"},
    CapturePoint{8, "fcport", "Not found fcport"},
    CapturePoint{9, "pnic", "Not found pnic"},
};

struct PointWord {
  std::string_view word;
  uint32_t type;
};
constexpr std::array kWords = {
    PointWord{"vnic", 1},        PointWord{"knlnic", 2},  PointWord{"knl", 2},      PointWord{"uplink", 3},
    PointWord{"hwnic", 3},       PointWord{"vdrport", 4}, PointWord{"dvfilter", 5}, PointWord{"lport", 6},
    PointWord{"logicalport", 6}, PointWord{"fcport", 8},
};
constexpr uint32_t kNoPoint = 7;

constexpr std::array kDirectionWords = {"input", "output", "dual"};
constexpr std::array kStageWords = {"pre", "post"};

template <size_t kSize>
const char* Nth(const std::array<const char*, kSize>& words, uint32_t number) {
  return number >= 1 && number <= kSize ? words[number - 1] : nullptr;
}

}  // namespace

const CapturePoint* FindCapturePoint(uint32_t type) {
  const auto found =
      std::find_if(kPoints.begin(), kPoints.end(), [type](const CapturePoint& p) { return p.type == type; });
  return found == kPoints.end() ? nullptr : &*found;
}

uint32_t CapturePointType(std::string_view word) {
  const auto found =
      std::find_if(kWords.begin(), kWords.end(), [word](const PointWord& w) { return w.word == word; });
  return found == kWords.end() ? kNoPoint : found->type;
}

const char* DirectionWord(uint32_t direction) { return Nth(kDirectionWords, direction); }
const char* StageWord(uint32_t stage) { return Nth(kStageWords, stage); }

}  // namespace zem::Tarvik
