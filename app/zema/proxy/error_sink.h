#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zem::zema {

/// The errors of one host configuration, for the answer to the manager: a code that only rises, and texts in
/// the order in which they were added.
///
/// Threads: one owner.
class ErrorSink {
 public:
  static constexpr uint32_t kGeneral = 8700;
  static constexpr uint32_t kPnicUsedByManagement = 8701;
  static constexpr uint32_t kTransportNodeIdNotSet = 8702;
  /// A router port could not be disconnected.
  static constexpr uint32_t kRouterPort = 8703;
  /// A switch did not report its state.
  static constexpr uint32_t kSwitchStatus = 44302;

  void Add(uint32_t code, std::string text) {
    if (code > code_) code_ = code;
    // The host may fail without a text; then only the code reports the failure.
    if (!text.empty()) texts_.push_back(std::move(text));
  }

  /// Removes the texts that contain `part`; calls `told` with each of them.
  template <class Told>
  void RemoveTextsWith(std::string_view part, Told told) {
    std::erase_if(texts_, [&](const std::string& text) {
      if (text.find(part) == std::string::npos) return false;
      told(text);
      return true;
    });
  }

  /// The one case in which the code goes down: a router port that stayed connected is no error once its
  /// switch is gone and nothing else has failed.  Returns true in that case.
  bool ForgiveRouterPort() {
    if (!texts_.empty() || code_ != kRouterPort) return false;
    code_ = 0;
    return true;
  }

  uint32_t code() const { return code_; }
  const std::vector<std::string>& texts() const { return texts_; }

 private:
  uint32_t code_ = 0;
  std::vector<std::string> texts_;
};

}  // namespace zem::zema
