#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zem::zema {

class LibraryBuffer;
class SwitchLibrary;

/// Properties of whole switches: a host property belongs to the switch on this host, a global property to the
/// switch wherever it is.
///
/// Threads: all calls from any thread.
/// Ownership: holds the library by reference.
/// Errors: the library's codes; all calls fail while the library is not loaded.
class SwitchProperties {
 public:
  explicit SwitchProperties(const SwitchLibrary& library) : library_(library) {}

  uint32_t HostPropSet(const std::string& dvs, const char* property, std::string_view value,
                       uint32_t flags) const;
  uint32_t HostPropGet(const std::string& dvs, const char* property, LibraryBuffer* value) const;
  uint32_t HostPropClear(const std::string& dvs, const char* property) const;
  uint32_t GlobalPropSet(const std::string& dvs, const char* property, std::string_view value,
                         uint32_t flags) const;
  uint32_t GlobalPropGet(const std::string& dvs, const char* property, LibraryBuffer* value) const;
  uint32_t GlobalPropClear(const std::string& dvs, const char* property) const;

 private:
  const SwitchLibrary& library_;
};

}  // namespace zem::zema
