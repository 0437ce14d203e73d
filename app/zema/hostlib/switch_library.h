#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "app/zema/hostlib/library_buffer.h"
#include "framework/process/dynamic_library.h"
#include "platform/switchlib/switchlib.h"

namespace zem::zema {

/// Result codes of the switch library other than 0.
inline constexpr uint32_t kSwitchNotFound = DVS_NOT_FOUND;
/// The library is not loaded.  It is the library's general failure code.
inline constexpr uint32_t kSwitchNotLoaded = DVS_FAILURE;

/// The text of a code, such as "0xbad0003 (not found)".
std::string SwitchErrorText(uint32_t code);

/// The keys of a switch's ports, in the library's own memory.
class PortList {
 public:
  /// The key at `index`, which is below `size()`; ends with a zero.
  const char* operator[](size_t index) const { return records_[index].key; }
  size_t size() const { return count_; }

 private:
  friend class SwitchLibrary;
  LibraryBuffer buffer_;
  const DVSPortRecord* records_ = nullptr;
  size_t count_ = 0;
};

/// The host's switch library.  Without it every call fails.
///
/// Threads: all calls from any thread; Open and Close by the owner, while nobody calls.
/// Errors: the library's codes; 0 is success.
class SwitchLibrary {
 public:
  explicit SwitchLibrary(std::string file = "libklnPublic.so");
  ~SwitchLibrary();
  SwitchLibrary(const SwitchLibrary&) = delete;
  SwitchLibrary& operator=(const SwitchLibrary&) = delete;

  [[nodiscard]] bool Open(std::string* error);
  void Close();
  bool loaded() const { return library_.is_open(); }

  uint32_t PortAdd(const std::string& dvs, const std::string& port, std::string_view data) const;
  uint32_t PortRemove(const std::string& dvs, const std::string& port) const;
  uint32_t PortFind(const std::string& dvs, const std::string& port) const;
  uint32_t PortDataSet(const std::string& dvs, const std::string& port, const char* property,
                       std::string_view value) const;
  /// Reads the bytes of a value; the bytes of a text include its final zero.
  uint32_t PortDataGet(const std::string& dvs, const std::string& port, const char* property,
                       LibraryBuffer* value) const;
  /// Reads a text property.
  uint32_t PortTextGet(const std::string& dvs, const std::string& port, const char* property,
                       std::string* text) const;
  uint32_t PortDataClear(const std::string& dvs, const std::string& port, const char* property) const;
  uint32_t PortStateGet(const std::string& dvs, const std::string& port, LibraryBuffer* state) const;
  uint32_t PersistentPortStateGet(const std::string& dvs, const std::string& port,
                                  LibraryBuffer* state) const;

  /// Lists the ports of a switch.  Only one such call runs at a time in the process.  A list that exceeds its
  /// buffer is a failure.
  uint32_t SwitchPortList(const std::string& dvs, PortList* ports) const;

  /// The functions of the library itself; null while it is not loaded.
  struct Calls {
    decltype(&::DVSData_Alloc) data_alloc = nullptr;
    decltype(&::DVSData_Free) data_free = nullptr;
    decltype(&::DVSData_Update) data_update = nullptr;
    decltype(&::DVSData_Remove) data_remove = nullptr;
    decltype(&::DVSData_Serialize) data_serialize = nullptr;
    decltype(&::DVSData_Deserialize) data_deserialize = nullptr;
    decltype(&::DVSData_Next) data_next = nullptr;
    decltype(&::DVSData_Name) data_name = nullptr;
    decltype(&::DVSData_Data) data_data = nullptr;
    decltype(&::DVSData_PropType) data_prop_type = nullptr;
    decltype(&::DVSKNL_PortAdd) port_add = nullptr;
    decltype(&::DVSKNL_PortRemove) port_remove = nullptr;
    decltype(&::DVSKNL_PortFind) port_find = nullptr;
    decltype(&::DVSKNL_PortDataSet) port_data_set = nullptr;
    decltype(&::DVSKNL_PortDataGet) port_data_get = nullptr;
    decltype(&::DVSKNL_PortDataClear) port_data_clear = nullptr;
    decltype(&::DVSKNL_PortStateGet) port_state_get = nullptr;
    decltype(&::DVSKNL_PersistentPortStateGet) persistent_port_state_get = nullptr;
    decltype(&::DVSKNL_SwitchPortList) switch_port_list = nullptr;
    decltype(&::DVSKNL_HostPropGet) host_prop_get = nullptr;
    decltype(&::DVSKNL_HostPropSet) host_prop_set = nullptr;
    decltype(&::DVSKNL_HostPropClear) host_prop_clear = nullptr;
    decltype(&::DVSKNL_GlobalPropSet) global_prop_set = nullptr;
    decltype(&::DVSKNL_GlobalPropGet) global_prop_get = nullptr;
    decltype(&::DVSKNL_GlobalPropClear) global_prop_clear = nullptr;
  };
  const Calls& calls() const { return calls_; }

 private:
  std::vector<DynamicLibrary::Symbol> Symbols();

  DynamicLibrary library_;
  Calls calls_;
};

}  // namespace zem::zema
