#include "platform/rpc/status.h"

#include <array>

namespace zem::rpc {
namespace {

struct Name {
  StatusCode code;
  const char* text;
};
constexpr std::array kNames = {
    Name{StatusCode::kOk, "OK"},
    Name{StatusCode::kFailed, "FAILED"},
    Name{StatusCode::kInvalidArgument, "INVALID_ARGUMENT"},
    Name{StatusCode::kCancelled, "CANCELLED"},
    Name{StatusCode::kDeadlineExceeded, "DEADLINE_EXCEEDED"},
    Name{StatusCode::kUnknownType, "UNKNOWN_TYPE"},
    Name{StatusCode::kBadValue, "BAD_VALUE"},
    Name{StatusCode::kNotFound, "NOT_FOUND"},
    Name{StatusCode::kAlreadyExists, "ALREADY_EXISTS"},
    Name{StatusCode::kVdbGone, "VDB_GONE"},
    Name{StatusCode::kPermissionDenied, "PERMISSION_DENIED"},
    Name{StatusCode::kResourceExhausted, "RESOURCE_EXHAUSTED"},
    Name{StatusCode::kResyncRequired, "RESYNC_REQUIRED"},
    Name{StatusCode::kApplicationError, "APPLICATION_ERROR"},
    Name{StatusCode::kInternal, "INTERNAL"},
    Name{StatusCode::kUnavailable, "UNAVAILABLE"},
    Name{StatusCode::kUnimplemented, "UNIMPLEMENTED"},
    Name{StatusCode::kProtocolError, "PROTOCOL_ERROR"},
    Name{StatusCode::kChannelDown, "CHANNEL_DOWN"},
};

}  // namespace

std::string Status::ToString() const {
  if (ok()) return "OK";
  std::string result = "STATUS";
  for (const Name& name : kNames) {
    if (static_cast<int>(name.code) == code_) result = name.text;
  }
  result += " (" + std::to_string(code_) + ")";
  if (!text_.empty()) result += ": " + text_;
  return result;
}

}  // namespace zem::rpc
