#pragma once

#include <cstdint>
#include <string>

namespace zem::Tarvik {

/// What a session's status may say went wrong; the numbers are the manager's.
enum class SessionError : int {
  kNone = 0,
  kGeneral = 1,
  kInvalidSessionId = 12,
  kNoDuration = 13,
  kNoMode = 14,
  kNoType = 15,
  kNoValue = 16,
  kNoStreamAddress = 17,
  kUnknownMode = 18,
  kUnknownType = 19,
  kTooManySessions = 20,
  kNoSession = 21,
  kNotSupported = 22,
  kNotLaunched = 23,
  kNotTransferred = 24,
  kBadDirection = 25,
  kUnknownStage = 28,
};

/// The state of a session; on the wire it is one more.
enum class SessionState : uint32_t {
  kRunning = 0,   ///< its tools run, or wait for a thread
  kCaptured = 1,  ///< the file is there; it waits for its upload, or is being uploaded
  kDone = 2,
  kFailed = 3,
};

struct SessionStatus {
  std::string session_id;
  SessionState state = SessionState::kRunning;
  SessionError error = SessionError::kNone;
  /// The manager still has to say where the file goes.
  bool needs_upload_info = false;

  static SessionStatus Failed(std::string session_id, SessionError error) {
    return {std::move(session_id), SessionState::kFailed, error};
  }
};

const char* SessionErrorText(SessionError error);
/// What kind of error the manager is told.
uint32_t SessionErrorKind(SessionError error);

}  // namespace zem::Tarvik
