#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <string_view>

namespace zem::Tarvik {

enum class OptionType : uint8_t {
  kFlag,
  kNumber,
  kText,
  kList,  ///< a section with a value in each of its children, whatever their names
};

/// What the daemon does with a value that is outside the range.
enum class OutOfRange : uint8_t {
  kDefault,  ///< takes the default
  kInstead,  ///< takes the row's `instead`
  kRefused,  ///< does not use the file
};

/// The range of a number that has no narrower one.
inline constexpr int64_t kLeastWhole = std::numeric_limits<int32_t>::min();
inline constexpr int64_t kMostWhole = std::numeric_limits<int32_t>::max();

/// One option of a file.
struct OptionRow {
  /// Below the file's section.
  std::string_view key;
  OptionType type;
  /// Of a number, both included; of a text, its length, where a `most` of 0 allows any.
  int64_t least;
  int64_t most;
  /// As it would stand in the file.
  std::string_view standard;
  std::string_view effect;
  OutOfRange out_of_range = OutOfRange::kDefault;
  int64_t instead = 0;
  /// The file is not used when the option is missing.
  bool needed = false;
  /// The flag of the same file with which the option counts; empty for one that always does.
  std::string_view with = {};

  constexpr OptionRow Refused() const {
    OptionRow row = *this;
    row.out_of_range = OutOfRange::kRefused;
    return row;
  }
  constexpr OptionRow Instead(int64_t number) const {
    OptionRow row = *this;
    row.out_of_range = OutOfRange::kInstead;
    row.instead = number;
    return row;
  }
  constexpr OptionRow Needed() const {
    OptionRow row = *this;
    row.needed = true;
    return row;
  }
  constexpr OptionRow With(std::string_view flag) const {
    OptionRow row = *this;
    row.with = flag;
    return row;
  }
};

constexpr OptionRow FlagOption(std::string_view key, bool standard, std::string_view effect) {
  return {key, OptionType::kFlag, 0, 1, standard ? "true" : "false", effect};
}
constexpr OptionRow NumberOption(std::string_view key, int64_t least, int64_t most, std::string_view standard,
                                 std::string_view effect) {
  return {key, OptionType::kNumber, least, most, standard, effect};
}
constexpr OptionRow TextOption(std::string_view key, std::string_view standard, std::string_view effect,
                               int64_t least = 0, int64_t most = 0) {
  return {key, OptionType::kText, least, most, standard, effect};
}
constexpr OptionRow ListOption(std::string_view key, std::string_view effect) {
  return {key, OptionType::kList, 0, 0, "", effect};
}

/// A key that the table has; any other does not compile.  It keeps the row's place, because sanitized builds
/// do not take a comparison of addresses for constant.
template <const auto& kRows>
class KeyOf {
 public:
  consteval KeyOf(const char* key) {  // NOLINT(google-explicit-constructor)
    while (index_ < std::size(kRows) && kRows[index_].key != key) ++index_;
    if (index_ == std::size(kRows)) throw "the table of options does not have this key";
  }
  constexpr const OptionRow& row() const { return kRows[index_]; }

 private:
  size_t index_ = 0;
};

}  // namespace zem::Tarvik
