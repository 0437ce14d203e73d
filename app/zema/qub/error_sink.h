#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace zem::zema {

/// What went wrong while one host configuration was applied, for the answer to the manager: a code that only
/// rises, and texts in the order in which they came.
///
/// Threads: one owner.
class ErrorSink {
 public:
  static constexpr uint32_t kGeneral = 8700;
  static constexpr uint32_t kPnicUsedByManagement = 8701;
  static constexpr uint32_t kTransportNodeIdNotSet = 8702;

  void Add(uint32_t code, std::string text) {
    if (code > code_) code_ = code;
    texts_.push_back(std::move(text));
  }

  uint32_t code() const { return code_; }
  const std::vector<std::string>& texts() const { return texts_; }

 private:
  uint32_t code_ = 0;
  std::vector<std::string> texts_;
};

}  // namespace zem::zema
