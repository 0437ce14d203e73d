#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "app/zema/hostlib/dvs_data.h"
#include "app/zema/hostlib/port_props.h"
#include "app/zema/hostlib/team_records.h"
#include "sim/switch/library_folder.h"

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

const zem::zema::SwitchLibrary& Library() {
  static zem::zema::SwitchLibrary* const library = [] {
    setenv("ZEM_SIM_ROOT", "/nonexistent", 1);
    auto* const loaded = new zem::zema::SwitchLibrary(zem::sim::LibraryFolder::Built() + "/libklnPublic.so");
    std::string error;
    Require(loaded->Open(&error));
    return loaded;
  }();
  return *library;
}

}  // namespace

// What a port file, and the binary properties of a switch, may hold.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zem::zema;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  DvsData list(Library());
  if (list.Deserialize(bytes) == 0) {
    static_cast<void>(list.Text(port_props::kExternalId));
    LibraryBuffer again;
    Require(list.Serialize(&again) == 0 && again.bytes().size() <= size);
    Require(bytes.starts_with(again.bytes()));
  }
  if (const auto teaming = ReadTeamPolicy(bytes)) {
    Require(BuildTeamPolicy(*teaming)->size() == size);
  }
  static_cast<void>(ReadLacpNames(bytes));
  return 0;
}
