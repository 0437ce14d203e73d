#pragma once

#include <optional>
#include <string>
#include <utility>

namespace zem {

/// How an operation that may fail because of the world ended: it is done, or the error text says why not.
///
/// The text is for the log and for whoever asked; it names the object and the reason.  An outcome cannot be
/// ignored.
class [[nodiscard]] Outcome {
 public:
  static Outcome Done() { return Outcome(std::nullopt); }
  static Outcome Failed(std::string error) { return Outcome(std::move(error)); }

  bool done() const { return !error_.has_value(); }
  explicit operator bool() const { return done(); }

  /// Empty after success.
  const std::string& error() const {
    static const std::string kNone;
    return error_ ? *error_ : kNone;
  }

 private:
  explicit Outcome(std::optional<std::string> error) : error_(std::move(error)) {}

  std::optional<std::string> error_;
};

}  // namespace zem
