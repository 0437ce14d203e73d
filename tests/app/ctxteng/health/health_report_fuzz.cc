// Any text that the multiplexer hands over gives a message, and the daemon lives.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "app/ctxteng/base/vm_data.h"
#include "app/ctxteng/health/health_report.h"
#include "proto/context/ouvi.pb.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const auto guest = std::make_shared<const Ctxt::VmData>();
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto report = Ctxt::BuildHealthReport(text, [](const std::string&) { return guest; });
  // A report says whether it is one.
  if (!report.has_status_code() || (report.status_code() != 0 && report.health_size() != 0)) std::abort();
  return 0;
}
