#pragma once

#include "framework/log/logger.h"

/// How lines are logged: each source file names its component once, as a constant `kLog`, and calls the
/// macros.
///
///     namespace {
///     constexpr zem::LogSource kLog{"tarvik", "framework"};
///     }
///     ZLOG_INFO("Tarvik cli socket %s", path.c_str());
///     ZLOG_ERROR("OPS00303", "Failed to enable core dump: %s", std::strerror(errno));
///
/// A line that is not wanted costs one load and one compare; its arguments are not evaluated.

namespace zem {

/// The component of a line; null for a library layer without second level.  Both texts live forever.
struct LogSource {
  const char* subcomp;
  const char* s2comp = nullptr;
};

void LogLine(const LogSource& source, LibraryLogLevel level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/// With one tag, as Logger::tag takes it.
void LogTagged(const LogSource& source, LibraryLogLevel level, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// At error level with the tag "errorCode:" and `code`; a code that begins with a digit gets "MPA" in front.
void LogErrorCode(const LogSource& source, const char* code, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/// The context engine's form: the line twice, tagged "errorCode:CTX<number>" and "errorCode:MPACTX<number>".
void LogContextError(const LogSource& source, int number, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace zem

/// True when lines of `level` are wanted; for work that only a line needs.
#define ZLOG_WANTS(level) \
  (::zem::Logger::logLevel.load(::std::memory_order_relaxed) > static_cast<uint32_t>(level) - 1)

#define ZLOG_CALL(level, function, ...) \
  do {                                  \
    if (ZLOG_WANTS(level)) [[unlikely]] \
      function(__VA_ARGS__);            \
  } while (false)

/// For headers and for lines of another component than the file's.
#define ZLOG_TO(source, level, ...) ZLOG_CALL(level, ::zem::LogLine, source, level, __VA_ARGS__)
#define ZLOG_TAGGED_TO(source, level, tag, ...) \
  ZLOG_CALL(level, ::zem::LogTagged, source, level, tag, __VA_ARGS__)
#define ZLOG_ERROR_TO(source, code, ...) \
  ZLOG_CALL(::zem::kLogError, ::zem::LogErrorCode, source, code, __VA_ARGS__)

#define ZLOG_ERROR(code, ...) ZLOG_ERROR_TO(kLog, code, __VA_ARGS__)
#define ZLOG_CTX_ERROR(number, ...) \
  ZLOG_CALL(::zem::kLogError, ::zem::LogContextError, kLog, number, __VA_ARGS__)
#define ZLOG_TAGGED(level, tag, ...) ZLOG_TAGGED_TO(kLog, level, tag, __VA_ARGS__)
#define ZLOG_FATAL(...) ZLOG_TO(kLog, ::zem::kLogFatal, __VA_ARGS__)
#define ZLOG_WARN(...) ZLOG_TO(kLog, ::zem::kLogWarning, __VA_ARGS__)
#define ZLOG_INFO(...) ZLOG_TO(kLog, ::zem::kLogInfo, __VA_ARGS__)
#define ZLOG_DEBUG(...) ZLOG_TO(kLog, ::zem::kLogDebug, __VA_ARGS__)
#define ZLOG_TRACE(...) ZLOG_TO(kLog, ::zem::kLogTrace, __VA_ARGS__)
