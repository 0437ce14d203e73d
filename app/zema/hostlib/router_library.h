#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "framework/process/dynamic_library.h"
#include "platform/switchlib/routerlib.h"

namespace zem::zema {

/// The host's library of router ports.  Its result codes are those of the switch library.
///
/// Threads: all calls from any thread; Open and Close by the owner, while nobody calls.
class RouterLibrary {
 public:
  using Mac = std::array<uint8_t, VDR_MAC_SIZE>;

  explicit RouterLibrary(std::string file = "libvdrkln.so");
  ~RouterLibrary();
  RouterLibrary(const RouterLibrary&) = delete;
  RouterLibrary& operator=(const RouterLibrary&) = delete;

  [[nodiscard]] bool Open(std::string* error);
  void Close();
  bool loaded() const { return library_.is_open(); }

  uint32_t GetVMAC(const std::string& dvs, Mac* mac) const;
  uint32_t PlumbVdrConnection(const std::string& dvs, const char* port, const Mac& mac, uint32_t teaming,
                              const std::vector<std::string>& uplinks) const;
  uint32_t UnPlumbVdrConnection(const std::string& dvs) const;
  uint32_t GetUnloadStatus(bool* busy) const;

 private:
  struct Calls {
    decltype(&::VDRKNL_GetVMAC) get_vmac = nullptr;
    decltype(&::VDRKNL_PlumbVdrConnection) plumb = nullptr;
    decltype(&::VDRKNL_UnPlumbVdrConnection) unplumb = nullptr;
    decltype(&::VDRKNL_GetUnloadStatus) get_unload_status = nullptr;
  };
  std::vector<DynamicLibrary::Symbol> Symbols();

  DynamicLibrary library_;
  Calls calls_;
};

}  // namespace zem::zema
