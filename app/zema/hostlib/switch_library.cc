#include "app/zema/hostlib/switch_library.h"

#include <cstdio>
#include <cstring>
#include <mutex>
#include <utility>

#include "app/zema/hostlib/library_step.h"

namespace zem::zema {
namespace {

// The library allows one port listing at a time in the process.
std::mutex port_list_mutex;

constexpr std::pair<uint32_t, const char*> kCodeTexts[] = {
    {DVS_FAILURE, "failure"},
    {DVS_BAD_ARGUMENT, "bad argument"},
    {DVS_NOT_FOUND, "not found"},
    {DVS_EXISTS, "exists already"},
};

uint32_t Length(std::string_view bytes) { return static_cast<uint32_t>(bytes.size()); }

// A port that is not there is an answer, not a fault.
}  // namespace

std::string SwitchErrorText(uint32_t code) {
  char text[48];
  for (const auto& [known, meaning] : kCodeTexts) {
    if (known != code) continue;
    std::snprintf(text, sizeof(text), "0x%x (%s)", code, meaning);
    return text;
  }
  std::snprintf(text, sizeof(text), "0x%x", code);
  return text;
}

SwitchLibrary::SwitchLibrary(std::string file) : library_(std::move(file)) {}
SwitchLibrary::~SwitchLibrary() = default;

std::vector<DynamicLibrary::Symbol> SwitchLibrary::Symbols() {
  return {
      DynamicLibrary::Of("DVSData_Alloc", &calls_.data_alloc),
      DynamicLibrary::Of("DVSData_Free", &calls_.data_free),
      DynamicLibrary::Of("DVSData_Update", &calls_.data_update),
      DynamicLibrary::Of("DVSData_Remove", &calls_.data_remove),
      DynamicLibrary::Of("DVSData_Serialize", &calls_.data_serialize),
      DynamicLibrary::Of("DVSData_Deserialize", &calls_.data_deserialize),
      DynamicLibrary::Of("DVSData_Next", &calls_.data_next),
      DynamicLibrary::Of("DVSData_Name", &calls_.data_name),
      DynamicLibrary::Of("DVSData_Data", &calls_.data_data),
      DynamicLibrary::Of("DVSData_PropType", &calls_.data_prop_type),
      DynamicLibrary::Of("DVSKNL_PortAdd", &calls_.port_add),
      DynamicLibrary::Of("DVSKNL_PortRemove", &calls_.port_remove),
      DynamicLibrary::Of("DVSKNL_PortFind", &calls_.port_find),
      DynamicLibrary::Of("DVSKNL_PortDataSet", &calls_.port_data_set),
      DynamicLibrary::Of("DVSKNL_PortDataGet", &calls_.port_data_get),
      DynamicLibrary::Of("DVSKNL_PortDataClear", &calls_.port_data_clear),
      DynamicLibrary::Of("DVSKNL_PortStateGet", &calls_.port_state_get),
      DynamicLibrary::Of("DVSKNL_PersistentPortStateGet", &calls_.persistent_port_state_get),
      DynamicLibrary::Of("DVSKNL_SwitchPortList", &calls_.switch_port_list),
      DynamicLibrary::Of("DVSKNL_HostPropGet", &calls_.host_prop_get),
      DynamicLibrary::Of("DVSKNL_HostPropSet", &calls_.host_prop_set),
      DynamicLibrary::Of("DVSKNL_HostPropClear", &calls_.host_prop_clear),
      DynamicLibrary::Of("DVSKNL_GlobalPropSet", &calls_.global_prop_set),
      DynamicLibrary::Of("DVSKNL_GlobalPropGet", &calls_.global_prop_get),
      DynamicLibrary::Of("DVSKNL_GlobalPropClear", &calls_.global_prop_clear),
  };
}

bool SwitchLibrary::Open(std::string* error) { return library_.Open(Symbols(), error); }
void SwitchLibrary::Close() { library_.Close(Symbols()); }

uint32_t SwitchLibrary::PortAdd(const std::string& dvs, const std::string& port,
                                std::string_view data) const {
  if (!loaded()) return kSwitchNotLoaded;
  return LibraryStep("DVSKNL_PortAdd", dvs,
                     port)(calls_.port_add(dvs.c_str(), port.c_str(), data.data(), Length(data)));
}

uint32_t SwitchLibrary::PortRemove(const std::string& dvs, const std::string& port) const {
  if (!loaded()) return kSwitchNotLoaded;
  return LibraryStep("DVSKNL_PortRemove", dvs, port)(calls_.port_remove(dvs.c_str(), port.c_str()));
}

uint32_t SwitchLibrary::PortFind(const std::string& dvs, const std::string& port) const {
  if (!loaded()) return kSwitchNotLoaded;
  return LibraryStep("DVSKNL_PortFind", dvs, port)(calls_.port_find(dvs.c_str(), port.c_str()));
}

uint32_t SwitchLibrary::PortDataSet(const std::string& dvs, const std::string& port, const char* property,
                                    std::string_view value) const {
  if (!loaded()) return kSwitchNotLoaded;
  return LibraryStep("DVSKNL_PortDataSet", dvs, port, property)(calls_.port_data_set(
      dvs.c_str(), port.c_str(), property, value.data(), Length(value), DVS_PROPERTY_FLAGS));
}

uint32_t SwitchLibrary::PortDataGet(const std::string& dvs, const std::string& port, const char* property,
                                    LibraryBuffer* value) const {
  if (!loaded()) return kSwitchNotLoaded;
  return LibraryStep("DVSKNL_PortDataGet", dvs, port, property)(
      calls_.port_data_get(dvs.c_str(), port.c_str(), property, value->data(), value->length()));
}

uint32_t SwitchLibrary::PortTextGet(const std::string& dvs, const std::string& port, const char* property,
                                    std::string* text) const {
  LibraryBuffer value;
  const uint32_t result = PortDataGet(dvs, port, property, &value);
  if (result == 0) *text = value.text();
  return result;
}

uint32_t SwitchLibrary::PortDataClear(const std::string& dvs, const std::string& port,
                                      const char* property) const {
  if (!loaded()) return kSwitchNotLoaded;
  return LibraryStep("DVSKNL_PortDataClear", dvs, port,
                     property)(calls_.port_data_clear(dvs.c_str(), port.c_str(), property));
}

uint32_t SwitchLibrary::PortStateGet(const std::string& dvs, const std::string& port,
                                     LibraryBuffer* state) const {
  if (!loaded()) return kSwitchNotLoaded;
  return LibraryStep("DVSKNL_PortStateGet", dvs,
                     port)(calls_.port_state_get(dvs.c_str(), port.c_str(), state->data(), state->length()));
}

uint32_t SwitchLibrary::PersistentPortStateGet(const std::string& dvs, const std::string& port,
                                               LibraryBuffer* state) const {
  if (!loaded()) return kSwitchNotLoaded;
  return LibraryStep("DVSKNL_PersistentPortStateGet", dvs, port)(calls_.persistent_port_state_get(
      dvs.c_str(), port.c_str(), DVS_FORMAT, state->data(), state->length()));
}

uint32_t SwitchLibrary::SwitchPortList(const std::string& dvs, PortList* ports) const {
  if (!loaded()) return kSwitchNotLoaded;
  PortList fresh;
  uint32_t result = 0;
  {
    std::lock_guard lock(port_list_mutex);
    result = LibraryStep("DVSKNL_SwitchPortList", dvs)(
        calls_.switch_port_list(dvs.c_str(), fresh.buffer_.data(), fresh.buffer_.length()));
  }
  if (result != 0) return result;
  const std::string_view bytes = fresh.buffer_.bytes();
  DVSPortListHeader header;
  if (bytes.size() < sizeof(header)) return DVS_FAILURE;
  std::memcpy(&header, bytes.data(), sizeof(header));
  if ((bytes.size() - sizeof(header)) / sizeof(DVSPortRecord) < header.count) return DVS_FAILURE;
  fresh.records_ = reinterpret_cast<const DVSPortRecord*>(bytes.data() + sizeof(header));
  fresh.count_ = header.count;
  for (size_t i = 0; i < fresh.count_; ++i) {
    if (std::memchr(fresh.records_[i].key, '\0', DVS_PORT_KEY_SIZE) == nullptr) return DVS_FAILURE;
  }
  *ports = std::move(fresh);
  return 0;
}

}  // namespace zem::zema
