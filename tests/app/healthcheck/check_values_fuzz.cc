#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "app/healthcheck/check_values.h"

// What is taken apart accounts for every byte of the value.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view value(reinterpret_cast<const char*>(data), size);
  if (const auto ports = zem::Tarvik::ParseUplinkPorts(value); ports && 4 + 48 * ports->size() != size)
    std::abort();
  if (const auto result = zem::Tarvik::ParseCheckResult(value);
      result && 4 + 4 * (result->first.size() + result->second.size()) != size)
    std::abort();
  if (zem::Tarvik::ParseAlias(value).size() > 81) std::abort();
  if (zem::Tarvik::SwitchIdOfName(value).size() != 47) std::abort();
  return 0;
}
