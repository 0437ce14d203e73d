#include <cstdint>
#include <cstdlib>
#include <string>

#include "app/ctxteng/introspection/mps_config.h"
#include "tests/support/silent_log.h"

// The JSON text is an operator's, by way of the manager and the store.  A field is text of the input or
// empty.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zem::test::SilenceLog();
  const Ctxt::MpsConfig config = Ctxt::ReadMpsConfig(std::string(reinterpret_cast<const char*>(data), size));
  if (config.solution_id.size() + config.vendor_template_key.size() + config.file_categories.size() > size) {
    std::abort();
  }
  return 0;
}
