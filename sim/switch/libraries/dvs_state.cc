#include <cstring>
#include <list>
#include <mutex>

#include "sim/switch/libraries/dvs_data.h"
#include "sim/switch/tree/json_file.h"
#include "sim/switch/tree/library_call.h"
#include "sim/switch/tree/state_tree.h"

// The switch state that a process loads to find a switch by its name: a list of ids with their names.

struct DVSSwitch {
  std::string name;
  char id[DVS_SWITCH_ID_SIZE];
};

using namespace zem::sim;

namespace {

std::mutex mutex;  // guards all below
std::list<DVSSwitch> loaded;
bool reset_done = false;

}  // namespace

ZEM_SIM_EXPORT uint32_t DVSKNL_StateGet(void** buffer, uint32_t* length, const char* dvs, int) {
  LibraryCall call({__func__, dvs});
  if (call.fails()) return call.result();
  ValueList list;
  for (const std::string& id : tree::List(tree::SwitchesDir()).value_or(std::vector<std::string>())) {
    if (*dvs != '\0' && id != dvs) continue;
    const JsonFile meta = ReadJson(tree::SwitchDir(id) + "/meta.json");
    if (meta) list.Update(id, JsonString(meta.get(), "name"), DVS_PROPERTY_FLAGS);
  }
  if (list.items().empty()) return call.Result(DVS_NOT_FOUND);
  return call.Result(GiveBytes(list.Serialize(), buffer, length));
}

ZEM_SIM_EXPORT uint32_t DVSState_ConfigReset() {
  LibraryCall call({__func__});
  if (call.fails()) return call.result();
  std::lock_guard lock(mutex);
  if (reset_done) Violation(__func__, "a reset while another's state was about to be loaded");
  loaded.clear();
  reset_done = true;
  return call.Result(0);
}

ZEM_SIM_EXPORT uint32_t DVSState_ConfigDeserialize(const void* buffer, uint32_t length) {
  LibraryCall call({__func__});
  if (call.fails()) return call.result();
  std::lock_guard lock(mutex);
  if (!reset_done) Violation(__func__, "state loaded without a reset before");
  reset_done = false;
  const auto list = ValueList::Deserialize({static_cast<const char*>(buffer), length});
  if (!list) return call.Result(DVS_BAD_ARGUMENT);
  for (const ValueList::Item& item : list->items()) {
    DVSSwitch& entry = loaded.emplace_back();
    entry.name = item.value;
    std::memset(entry.id, 0, sizeof(entry.id));
    std::memcpy(entry.id, item.name.data(), std::min(item.name.size(), sizeof(entry.id) - 1));
  }
  return call.Result(0);
}

ZEM_SIM_EXPORT DVSSwitch* DVSState_SwitchFindByAlias(const char* name) {
  LibraryCall call({__func__});
  std::lock_guard lock(mutex);
  for (DVSSwitch& entry : loaded) {
    if (entry.name == name) return &entry;
  }
  call.Result(DVS_NOT_FOUND);
  return nullptr;
}

ZEM_SIM_EXPORT const char* DVS_SwitchId(const DVSSwitch* dvs) { return dvs->id; }
