#include "app/ctxteng/firewall/filter_scan.h"

#include <cstdlib>

#include "platform/firewall/filter_device.h"
#include "tests/support/silent_log.h"

// The records come from a driver.  Whatever they hold, there are not more filters than whole records.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zem::test::SilenceLog();
  const Ctxt::DfwUtil::FilterScan scan =
      Ctxt::DfwUtil::ParseFilters({reinterpret_cast<const char*>(data), size}, "orlane-sfw");
  size_t count = 0;
  for (const auto& [vm, vnics] : scan.filters) count += vnics.size();
  if (count > size / FW_FILTER_SIZE) std::abort();
  return 0;
}
