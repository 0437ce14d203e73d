#include "platform/core/lib_log.h"

#include <array>
#include <cstdio>
#include <string>

namespace zem {
namespace {

constexpr std::array kSubcomponents = {"zem-metrics", "zem-net", "zem-rpc", "zem-sha", "zem-wft"};
static_assert(kSubcomponents.size() == static_cast<size_t>(Library::kCount));

void ToStandardError(LibraryLogLevel level, const char* subcomponent, std::string_view text) {
  if (level > kLogWarning) return;
  std::fprintf(stderr, "%s: %.*s\n", subcomponent, static_cast<int>(text.size()), text.data());
}

std::atomic<LibraryLogSink>& Sink() {
  static std::atomic<LibraryLogSink> sink{&ToStandardError};
  return sink;
}

constexpr size_t kMaxText = size_t{64} * 1024;

}  // namespace

std::atomic<int>& LibraryLevel(Library library) {
  static std::array<std::atomic<int>, static_cast<size_t>(Library::kCount)> levels{
      kLogInfo, kLogInfo, kLogInfo, kLogInfo, kLogInfo};
  return levels[static_cast<size_t>(library)];
}

void SetLibraryLogSink(LibraryLogSink sink) { Sink().store(sink != nullptr ? sink : &ToStandardError); }

void LibraryLog(Library library, LibraryLogLevel level, const char* format, ...) {
  char small[512];
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(small, sizeof(small), format, arguments);
  va_end(arguments);
  if (length < 0) return;
  const char* subcomponent = kSubcomponents[static_cast<size_t>(library)];
  const LibraryLogSink sink = Sink().load();
  if (static_cast<size_t>(length) < sizeof(small)) {
    sink(level, subcomponent, std::string_view(small, static_cast<size_t>(length)));
    return;
  }
  std::string large(std::min(static_cast<size_t>(length), kMaxText), '\0');
  va_start(arguments, format);
  std::vsnprintf(large.data(), large.size() + 1, format, arguments);
  va_end(arguments);
  sink(level, subcomponent, large);
}

}  // namespace zem
