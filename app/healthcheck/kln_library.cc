#include "app/healthcheck/kln_library.h"

#include <cstdlib>
#include <memory>
#include <mutex>

#include "framework/log/log.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "healthcheck"};

// A value of the library: from malloc, and ours.
class Block {
 public:
  Block() = default;
  ~Block() { std::free(data_); }
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;

  void** data() { return &data_; }
  uint32_t* length() { return &length_; }
  std::string_view bytes() const { return {static_cast<const char*>(data_), data_ == nullptr ? 0 : length_}; }

 private:
  void* data_ = nullptr;
  uint32_t length_ = 0;
};

// The state that the library loads is the process's: whoever loads it has it until the id is copied.
std::mutex& LoadedState() {
  static std::mutex mutex;
  return mutex;
}

}  // namespace

KlnLibrary::~KlnLibrary() { library_.Close(Symbols()); }

std::vector<DynamicLibrary::Symbol> KlnLibrary::Symbols() {
  const auto of = [](const char* name, auto* function) { return DynamicLibrary::Of(name, function); };
  return {of("DVSKNL_GlobalPropClear", &global_prop_clear_),
          of("DVSKNL_GlobalPropSet", &global_prop_set_),
          of("DVSKNL_HostPropGet", &host_prop_get_),
          of("DVSKNL_PortDataGet", &port_data_get_),
          of("DVSKNL_StateGet", &state_get_),
          of("DVSState_ConfigReset", &config_reset_),
          of("DVSState_ConfigDeserialize", &config_deserialize_),
          of("DVSState_SwitchFindByAlias", &switch_find_by_alias_),
          of("DVS_SwitchId", &switch_id_)};
}

bool KlnLibrary::Open(std::string* error) { return library_.Open(Symbols(), error); }

std::optional<std::string> KlnLibrary::FindSwitchId(const std::string& name) const {
  const std::lock_guard lock(LoadedState());
  Block state;
  const char every_switch[DVS_SWITCH_ID_SIZE] = "";
  if (const uint32_t result = state_get_(state.data(), state.length(), every_switch, 0); result != 0) {
    ZLOG_TO(kLog, kLogError, "Failed to load DVS data from hypercore, errno: %x", result);
    return std::nullopt;
  }
  config_reset_();
  if (const uint32_t result =
          config_deserialize_(state.bytes().data(), static_cast<uint32_t>(state.bytes().size()));
      result != 0) {
    ZLOG_TO(kLog, kLogError, "Failed to deserialize DVS data, errno: %x", result);
    return std::nullopt;
  }
  const DVSSwitch* const found = switch_find_by_alias_(name.c_str());
  if (found == nullptr) return std::nullopt;
  const std::string_view id(switch_id_(found), DVS_SWITCH_ID_SIZE - 1);
  return std::string(id.substr(0, id.find('\0')));
}

uint32_t KlnLibrary::SetGlobal(const std::string& dvs, const char* property, std::string_view value,
                               uint32_t flags) const {
  return global_prop_set_(dvs.c_str(), property, value.data(), static_cast<uint32_t>(value.size()), flags);
}

uint32_t KlnLibrary::ClearGlobal(const std::string& dvs, const char* property) const {
  return global_prop_clear_(dvs.c_str(), property);
}

uint32_t KlnLibrary::HostValue(const std::string& dvs, const char* property, std::string* value) const {
  Block block;
  const uint32_t result = host_prop_get_(dvs.c_str(), property, block.data(), block.length());
  if (result == 0) *value = block.bytes();
  return result;
}

uint32_t KlnLibrary::PortValue(const std::string& dvs, const std::string& port, const char* property,
                               std::string* value) const {
  Block block;
  const uint32_t result = port_data_get_(dvs.c_str(), port.c_str(), property, block.data(), block.length());
  if (result == 0) *value = block.bytes();
  return result;
}

}  // namespace zem::Tarvik
