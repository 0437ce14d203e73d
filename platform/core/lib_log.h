#pragma once

#include <atomic>
#include <cstdarg>
#include <string_view>

namespace zem {

/// Levels of all log lines, the daemon's and the libraries'.
enum LibraryLogLevel : int {
  kLogOff = 0,
  kLogFatal = 1,
  kLogError = 2,
  kLogWarning = 3,
  kLogInfo = 4,
  kLogDebug = 5,
  kLogTrace = 6,
};

/// The libraries whose levels are set one by one.
enum class Library { kMetrics, kNet, kRpc, kSha, kWorkflow, kCount };

/// The level word of `library`; lines above it are not built.  Plain loads and stores from any thread.
std::atomic<int>& LibraryLevel(Library library);

/// Where the libraries' lines go.  The default writes warnings and worse to standard error; the daemon sets
/// its logger before it starts threads.
using LibraryLogSink = void (*)(LibraryLogLevel level, const char* subcomponent, std::string_view text);
void SetLibraryLogSink(LibraryLogSink sink);

void LibraryLog(Library library, LibraryLogLevel level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace zem

/// One load and one compare when the line is not wanted; the arguments are then not evaluated.
#define ZEM_LIB_LOG(library, level, ...)                                         \
  do {                                                                           \
    if (::zem::LibraryLevel(library).load(std::memory_order_relaxed) >= (level)) \
      ::zem::LibraryLog(library, level, __VA_ARGS__);                            \
  } while (false)
