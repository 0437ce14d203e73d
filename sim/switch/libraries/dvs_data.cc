#include "sim/switch/libraries/dvs_data.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_set>

#include "sim/switch/tree/library_call.h"
#include "sim/switch/tree/live_count.h"
#include "sim/switch/tree/state_tree.h"

// A handle is dereferenced only when it is known to be allocated, so that a caller's mistake is recorded in
// the log of violations and does not corrupt the process's memory.

namespace zem::sim {
namespace {

class Handles {
 public:
  ~Handles() {
    for (DVSData* const data : live_) delete data;
  }

  DVSData* Make(ValueList list) {
    auto data = std::make_unique<DVSData>(DVSData{std::move(list)});
    std::lock_guard lock(mutex_);
    live_.insert(data.get());
    count_.Add(1);
    return data.release();
  }
  bool Live(const DVSData* data) const {
    std::lock_guard lock(mutex_);
    return live_.contains(const_cast<DVSData*>(data));
  }
  bool Free(DVSData* data) {
    {
      std::lock_guard lock(mutex_);
      if (live_.erase(data) == 0) return false;
      count_.Add(-1);
    }
    delete data;
    return true;
  }

 private:
  mutable std::mutex mutex_;  // guards live_
  std::unordered_set<DVSData*> live_;
  LiveCount count_{"DVSData_Alloc"};
};

Handles handles;

bool Check(const char* function, const DVSData* data) {
  if (handles.Live(data)) return true;
  Violation(function, "a list that was not made or has been freed");
  return false;
}

const ValueList::Item* ItemOf(const DVSDataItem* item) {
  return reinterpret_cast<const ValueList::Item*>(item);
}

}  // namespace

bool IsLiveHandle(const DVSData* data) { return handles.Live(data); }

uint32_t GiveBytes(std::string_view bytes, void** out, uint32_t* length) {
  *out = std::malloc(bytes.empty() ? 1 : bytes.size());
  if (*out == nullptr) return DVS_FAILURE;
  std::memcpy(*out, bytes.data(), bytes.size());
  *length = static_cast<uint32_t>(bytes.size());
  return 0;
}

}  // namespace zem::sim

using namespace zem::sim;

ZEM_SIM_EXPORT uint32_t DVSData_Alloc(DVSData** out) {
  LibraryCall call({__func__});
  if (call.fails()) return call.result();
  *out = handles.Make({});
  return call.Result(0);
}

ZEM_SIM_EXPORT uint32_t DVSData_Free(DVSData* data) {
  if (data == nullptr || handles.Free(data)) return 0;
  Violation(__func__, "a list that was not made or has been freed");
  return DVS_BAD_ARGUMENT;
}

ZEM_SIM_EXPORT uint32_t DVSData_Update(DVSData* data, const char* name, const void* value, uint32_t length,
                                       uint32_t flags) {
  LibraryCall call({__func__, nullptr, nullptr, name});
  if (call.fails()) return call.result();
  if (!Check(__func__, data) || !tree::GoodName(name)) return call.Result(DVS_BAD_ARGUMENT);
  if (flags != DVS_PROPERTY_FLAGS) Violation(__func__, "flags of a port's property other than 16");
  data->list.Update(name, {static_cast<const char*>(value), length}, flags);
  return call.Result(0);
}

ZEM_SIM_EXPORT uint32_t DVSData_Remove(DVSData* data, const char* name) {
  LibraryCall call({__func__, nullptr, nullptr, name});
  if (call.fails()) return call.result();
  if (!Check(__func__, data)) return call.Result(DVS_BAD_ARGUMENT);
  return call.Result(data->list.Remove(name) ? 0 : DVS_NOT_FOUND);
}

ZEM_SIM_EXPORT uint32_t DVSData_Serialize(DVSData* data, uint32_t format, void** buffer, uint32_t* length) {
  LibraryCall call({__func__});
  if (call.fails()) return call.result();
  if (!Check(__func__, data)) return call.Result(DVS_BAD_ARGUMENT);
  if (format != DVS_FORMAT) {
    Violation(__func__, "a format other than 100");
    return call.Result(DVS_BAD_ARGUMENT);
  }
  return call.Result(GiveBytes(data->list.Serialize(), buffer, length));
}

ZEM_SIM_EXPORT uint32_t DVSData_Deserialize(const void* buffer, uint32_t length, DVSData** out) {
  LibraryCall call({__func__});
  if (call.fails()) return call.result();
  auto list = ValueList::Deserialize({static_cast<const char*>(buffer), length});
  if (!list) return call.Result(DVS_BAD_ARGUMENT);
  *out = handles.Make(std::move(*list));
  return call.Result(0);
}

ZEM_SIM_EXPORT DVSDataItem* DVSData_Next(DVSData* data, DVSDataItem* current) {
  if (!Check(__func__, data)) return nullptr;
  auto& items = data->list.items();
  const size_t index = current == nullptr ? 0 : static_cast<size_t>(ItemOf(current) - items.data()) + 1;
  return index < items.size() ? reinterpret_cast<DVSDataItem*>(&items[index]) : nullptr;
}

ZEM_SIM_EXPORT const char* DVSData_Name(const DVSDataItem* item) { return ItemOf(item)->name.c_str(); }

ZEM_SIM_EXPORT const void* DVSData_Data(const DVSDataItem* item, uint32_t* length) {
  *length = static_cast<uint32_t>(ItemOf(item)->value.size());
  return ItemOf(item)->value.data();
}

ZEM_SIM_EXPORT uint32_t DVSData_PropType(const DVSDataItem* item) { return ItemOf(item)->flags; }
