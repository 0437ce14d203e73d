#include "app/zema/hostlib/router_library.h"

#include <utility>

#include "app/zema/hostlib/library_step.h"
#include "app/zema/hostlib/switch_library.h"

namespace zem::zema {
RouterLibrary::RouterLibrary(std::string file) : library_(std::move(file)) {}
RouterLibrary::~RouterLibrary() = default;

std::vector<DynamicLibrary::Symbol> RouterLibrary::Symbols() {
  return {
      DynamicLibrary::Of("VDRKNL_GetVMAC", &calls_.get_vmac),
      DynamicLibrary::Of("VDRKNL_PlumbVdrConnection", &calls_.plumb),
      DynamicLibrary::Of("VDRKNL_UnPlumbVdrConnection", &calls_.unplumb),
      DynamicLibrary::Of("VDRKNL_GetUnloadStatus", &calls_.get_unload_status),
  };
}

bool RouterLibrary::Open(std::string* error) { return library_.Open(Symbols(), error); }
void RouterLibrary::Close() { library_.Close(Symbols()); }

uint32_t RouterLibrary::GetVMAC(const std::string& dvs, Mac* mac) const {
  if (!loaded()) return kSwitchNotLoaded;
  return LibraryStep("VDRKNL_GetVMAC", dvs)(calls_.get_vmac(dvs.c_str(), mac->data()));
}

uint32_t RouterLibrary::PlumbVdrConnection(const std::string& dvs, const char* port, const Mac& mac,
                                           uint32_t teaming, const std::vector<std::string>& uplinks) const {
  if (!loaded()) return kSwitchNotLoaded;
  std::vector<const char*> names;
  names.reserve(uplinks.size());
  for (const std::string& uplink : uplinks) names.push_back(uplink.c_str());
  return LibraryStep("VDRKNL_PlumbVdrConnection", dvs, port)(calls_.plumb(
      dvs.c_str(), port, mac.data(), teaming, names.data(), static_cast<uint32_t>(names.size())));
}

uint32_t RouterLibrary::UnPlumbVdrConnection(const std::string& dvs) const {
  if (!loaded()) return kSwitchNotLoaded;
  return LibraryStep("VDRKNL_UnPlumbVdrConnection", dvs)(calls_.unplumb(dvs.c_str()));
}

uint32_t RouterLibrary::GetUnloadStatus(bool* busy) const {
  if (!loaded()) return kSwitchNotLoaded;
  int number = 0;
  const uint32_t result = LibraryStep("VDRKNL_GetUnloadStatus", {})(calls_.get_unload_status(&number));
  *busy = number != 0;
  return result;
}

}  // namespace zem::zema
