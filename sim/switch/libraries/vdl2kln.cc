#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <unordered_set>

#include "platform/switchlib/endpointlib.h"
#include "sim/switch/tree/json_file.h"
#include "sim/switch/tree/library_call.h"
#include "sim/switch/tree/live_count.h"
#include "sim/switch/tree/state_tree.h"

using namespace zem::sim;

namespace {

constexpr uint32_t kMostSeconds = 3600;

class OpenHandles {
 public:
  ~OpenHandles() {
    for (void* const handle : open_) std::free(handle);
  }
  void* Make(uint32_t id) {
    auto* const handle = static_cast<uint32_t*>(std::malloc(sizeof(uint32_t)));
    if (handle == nullptr) return nullptr;
    *handle = id;
    std::lock_guard lock(mutex_);
    open_.insert(handle);
    count_.Add(1);
    return handle;
  }
  bool Release(void* handle) {
    std::lock_guard lock(mutex_);
    if (open_.erase(handle) == 0) return false;
    count_.Add(-1);
    std::free(handle);
    return true;
  }

 private:
  std::mutex mutex_;  // guards open_
  std::unordered_set<void*> open_;
  LiveCount count_{"VDL2KNL_GetKnlnic"};
};

OpenHandles handles;

std::string EndpointFile(const std::string& device) { return tree::KnlnicsDir() + "/" + device + ".json"; }

// Returns the endpoint of the switch; null with the reason in `error`.
JsonFile Endpoint(const char* name, const char* device, int* error) {
  if (SwitchIdOfName(name).empty()) {
    *error = ENOENT;
    return nullptr;
  }
  JsonFile endpoint = tree::GoodName(device) ? ReadJson(EndpointFile(device)) : nullptr;
  if (endpoint && JsonString(endpoint.get(), "switch") == name) return endpoint;
  *error = ENAMETOOLONG;
  return nullptr;
}

bool Healthy(const cJSON* endpoint) {
  return JsonString(endpoint, "admin") != "down" && JsonString(endpoint, "health") != "failed";
}

int HealthyEndpoints(const std::string& name) {
  int healthy = 0;
  for (const std::string& file : tree::List(tree::KnlnicsDir()).value_or(std::vector<std::string>())) {
    const JsonFile endpoint = ReadJson(tree::KnlnicsDir() + "/" + file);
    if (endpoint && JsonString(endpoint.get(), "switch") == name && Healthy(endpoint.get())) ++healthy;
  }
  return healthy;
}

// The result of these calls: 0, or -1 with the reason in errno.
int Finish(LibraryCall& call, int error) {
  errno = error;
  return static_cast<int>(call.Result(error == 0 ? 0 : UINT32_MAX));
}

int Failed(const LibraryCall& call) {
  errno = call.error_number();
  return static_cast<int>(call.result());
}

std::string HighAvailabilityFile(const std::string& dvs) { return tree::SwitchDir(dvs) + "/tepha.json"; }

template <class Value>
int Store(const char* function, const char* dvs, const char* name, Value value) {
  LibraryCall call({function, dvs});
  if (call.fails()) return Failed(call);
  const tree::TreeLock lock;
  if (!tree::GoodName(dvs) || !tree::Exists(tree::SwitchDir(dvs) + "/meta.json")) {
    return Finish(call, ENOENT);
  }
  JsonFile settings = ReadJson(HighAvailabilityFile(dvs));
  if (!settings) settings.reset(cJSON_CreateObject());
  SetJson(settings.get(), name, value);
  return Finish(call, WriteJson(HighAvailabilityFile(dvs), settings.get()) ? 0 : ENOBUFS);
}

int StoreSeconds(const char* function, const char* dvs, const char* name, uint32_t seconds) {
  if (seconds >= 1 && seconds <= kMostSeconds) return Store(function, dvs, name, static_cast<int>(seconds));
  LibraryCall call({function, dvs});
  return call.fails() ? Failed(call) : Finish(call, EFAULT);
}

}  // namespace

ZEM_SIM_EXPORT void* VDL2KNL_GetKnlnic(const char* switch_name, const char* device, void*, void*, void*,
                                       int* error) {
  LibraryCall call({__func__, switch_name, device});
  int reason = call.error_number();
  void* handle = nullptr;
  if (!call.fails()) {
    if (const JsonFile endpoint = Endpoint(switch_name, device, &reason)) {
      handle = handles.Make(static_cast<uint32_t>(JsonNumber(endpoint.get(), "endpointId")));
      if (handle == nullptr) reason = ENOBUFS;
    }
  }
  *error = reason;
  Finish(call, reason);
  return handle;
}

ZEM_SIM_EXPORT int VDL2KNL_ReleaseKnlnic(void* knlnic) {
  if (handles.Release(knlnic)) return 0;
  Violation(__func__, "a handle that was not given or has been released");
  errno = EINVAL;
  return -1;
}

ZEM_SIM_EXPORT int VDL2KNL_SetKnlnicState(const char* switch_name, const char* device, uint32_t, int state) {
  LibraryCall call({__func__, switch_name, device});
  if (call.fails()) return Failed(call);
  const tree::TreeLock lock;
  int error = 0;
  const JsonFile endpoint = Endpoint(switch_name, device, &error);
  if (!endpoint) return Finish(call, error);
  if (state != 0 && state != 1) return Finish(call, EINVAL);
  if (state == 0 && Healthy(endpoint.get()) && HealthyEndpoints(switch_name) < 2) return Finish(call, ENOSYS);
  SetJson(endpoint.get(), "admin", std::string(state == 1 ? "up" : "down"));
  return Finish(call, WriteJson(EndpointFile(device), endpoint.get()) ? 0 : ENOBUFS);
}

ZEM_SIM_EXPORT int VDL2KNL_TEPHARecoverKnlnic(const char* switch_name, const char* device, uint32_t) {
  LibraryCall call({__func__, switch_name, device});
  if (call.fails()) return Failed(call);
  const tree::TreeLock lock;
  int error = 0;
  const JsonFile endpoint = Endpoint(switch_name, device, &error);
  if (!endpoint) return Finish(call, error);
  const JsonFile settings = ReadJson(HighAvailabilityFile(SwitchIdOfName(switch_name)));
  const bool enabled =
      settings && cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(settings.get(), "enabled")) != 0;
  if (!enabled || JsonString(endpoint.get(), "health") != "failed") return Finish(call, EINVAL);
  SetJson(endpoint.get(), "health", std::string("good"));
  return Finish(call, WriteJson(EndpointFile(device), endpoint.get()) ? 0 : ENOBUFS);
}

ZEM_SIM_EXPORT int VDL2KNL_SetTEPHA(const char* dvs, int enabled, int* error) {
  const int result = Store(__func__, dvs, "enabled", enabled != 0);
  if (error != nullptr) *error = errno;
  return result;
}
ZEM_SIM_EXPORT int VDL2KNL_SetTEPHAAutoRecover(const char* dvs, int enabled) {
  return Store(__func__, dvs, "autoRecover", enabled != 0);
}
ZEM_SIM_EXPORT int VDL2KNL_SetTEPHAAutoRecoverStartTime(const char* dvs, uint32_t seconds) {
  return StoreSeconds(__func__, dvs, "startTime", seconds);
}
ZEM_SIM_EXPORT int VDL2KNL_SetTEPHAAutoRecoverBackoff(const char* dvs, uint32_t seconds) {
  return StoreSeconds(__func__, dvs, "backoff", seconds);
}
ZEM_SIM_EXPORT int VDL2KNL_SetTEPHATimeout(const char* dvs, uint32_t seconds) {
  return StoreSeconds(__func__, dvs, "timeout", seconds);
}
