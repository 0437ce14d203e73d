#pragma once

#include <stddef.h>

/// One call on a command socket, by the control protocol of the Open vSwitch library.
#ifdef __cplusplus
extern "C" {
#endif

enum socket_call_end {
  SOCKET_CALL_ANSWERED,  ///< the text is the answer
  SOCKET_CALL_REFUSED,   ///< the daemon took the call and refused it; the text is its reason
  SOCKET_CALL_FAILED,    ///< there is no connection, or it broke; the text is the reason
  SOCKET_CALL_LATE,      ///< the answer did not come in time; no text
};

/// Calls `command` on the socket at `path` and waits at most `timeout_ms` for all of it: connecting, sending
/// and the answer.  `*text` is null or the caller's to free.
enum socket_call_end socket_call(const char* path, long long timeout_ms, const char* command,
                                 const char* const* arguments, size_t count, char** text);

#ifdef __cplusplus
}
#endif
