#pragma once

#include <string>
#include <utility>

namespace zem::rpc {

/// Numbers that the library itself gives; servers may give others.  See README.md for who acts on which.
enum class StatusCode : int {
  kOk = 0,
  kFailed = 1,
  kInvalidArgument = 2,
  kCancelled = 3,
  kDeadlineExceeded = 4,
  kUnknownType = 5,
  kBadValue = 6,
  kNotFound = 7,
  kAlreadyExists = 8,
  kVdbGone = 9,
  kPermissionDenied = 10,
  kResourceExhausted = 11,
  kResyncRequired = 12,
  kApplicationError = 13,
  kInternal = 14,
  kUnavailable = 50,
  kUnimplemented = 51,
  kProtocolError = 52,
  kChannelDown = 53,
};

/// Codes that only servers use.
struct AppStatus {
  static constexpr int INVALID_ARGUMENT = static_cast<int>(StatusCode::kInvalidArgument);
  static constexpr int NOT_FOUND = static_cast<int>(StatusCode::kNotFound);
  static constexpr int APPLICATION_ERROR = static_cast<int>(StatusCode::kApplicationError);
};

/// The end of a call: a number, 0 being OK, and a text for people.
class [[nodiscard]] Status {
 public:
  Status() = default;
  explicit Status(int code, std::string text = {}) : code_(code), text_(std::move(text)) {}
  explicit Status(StatusCode code, std::string text = {}) : Status(static_cast<int>(code), std::move(text)) {}

  bool ok() const { return code_ == 0; }
  int code() const { return code_; }
  const std::string& text() const { return text_; }

  /// "OK", or "NAME (number): text".
  std::string ToString() const;

 private:
  int code_ = 0;
  std::string text_;
};

}  // namespace zem::rpc
