// The options file is written by hand: any bytes must be read or refused, and every value in them, fitting or
// not, must leave the daemon with levels and modes that it has.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "framework/log/logger.h"
#include "framework/node/options.h"
#include "tests/support/silent_log.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zem;
  using namespace zem::Tarvik;
  zem::test::SilenceLog();
  const int file = ::memfd_create("options", MFD_CLOEXEC);
  if (file < 0 || ::write(file, data, size) != static_cast<ssize_t>(size)) std::abort();
  if (LoadOptions("/proc/self/fd/" + std::to_string(file))) {
    ApplyLoggingOptions();
    Logger::SetConsoleCopy(false);
    ApplyTracingOptions();
    ApplyModeOptions();
    if (Logger::logLevel > static_cast<uint32_t>(kLogTrace)) std::abort();
    for (const Library library : {Library::kMetrics, Library::kNet, Library::kRpc, Library::kSha}) {
      if (LibraryLevel(library) < 0 || LibraryLevel(library) > kLogTrace) std::abort();
    }
  }
  ::close(file);
  return 0;
}
