#include <arpa/inet.h>
#include <strings.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "platform/firewall/firewall.h"
#include "sim/firewall/tree/firewall_tree.h"
#include "sim/switch/tree/library_call.h"
#include "sim/switch/tree/live_count.h"
#include "sim/switch/tree/state_tree.h"

using namespace zem::sim;

struct FW_Instance {
  uint32_t mode;
};

struct FW_Attr {
  std::string vm_uuid;
  uint32_t vnic = 0;
  std::string connection;
  std::string user;
  uint64_t process = 0;
};

namespace {

constexpr const char* kDeviceKey = "FWIODeviceName";
constexpr const char* kAgent = "orlane-sfw";
constexpr uint32_t kFilterKind = 1;

template <size_t size>
std::string Text(const char (&field)[size]) {
  return {field, ::strnlen(field, size)};
}

// The attribute sets that the caller has and has not released.
class Attributes {
 public:
  FW_Attr* Make(FW_Attr attr) {
    auto made = std::make_unique<FW_Attr>(std::move(attr));
    FW_Attr* const key = made.get();
    std::lock_guard lock(mutex_);
    open_[key] = std::move(made);
    count_.Add(1);
    return key;
  }
  bool Has(FW_Attr* attr) {
    std::lock_guard lock(mutex_);
    return open_.count(attr) != 0;
  }
  bool Release(FW_Attr* attr) {
    std::lock_guard lock(mutex_);
    if (open_.erase(attr) == 0) return false;
    count_.Add(-1);
    return true;
  }

 private:
  std::mutex mutex_;  // guards open_
  std::unordered_map<FW_Attr*, std::unique_ptr<FW_Attr>> open_;
  LiveCount count_{"FW_CreateConnectionAttr"};
};

Attributes attributes;
FW_Instance instance{};
std::mutex instance_mutex;  // guards initialized
bool initialized = false;

bool GoodHandle(FW_Handle handle) {
  std::lock_guard lock(instance_mutex);
  return initialized && handle == &instance;
}

std::string Address(uint8_t family, const uint8_t* ip) {
  char text[INET6_ADDRSTRLEN] = "";
  ::inet_ntop(family == 1 ? AF_INET6 : AF_INET, ip, text, sizeof(text));
  return text;
}

std::string ConnectionText(const FW_ConnKey& key) {
  return std::to_string(key.protocol) + " " + Address(key.family, key.src_ip) + ":" +
         std::to_string(ntohs(key.src_port)) + " " + Address(key.family, key.dest_ip) + ":" +
         std::to_string(ntohs(key.dest_port));
}

// The bad attribute set of a call is a mistake of the caller's, not of the host's.
FW_Status BadAttribute(LibraryCall& call, const char* function) {
  Violation(function, "the attribute set is not one that the caller has");
  return call.Result(FW_BAD_KEY);
}

}  // namespace

ZEM_SIM_EXPORT FW_Status FW_Initialize(uint32_t version, const FW_Pair* pairs, uint32_t pair_count,
                                       uint32_t mode, FW_InitBlock* block, FW_Handle* handle) {
  LibraryCall call({__func__});
  if (call.fails()) return call.result();
  if (version != FW_VERSION || mode != FW_INIT_MODE || pairs == nullptr || block == nullptr ||
      handle == nullptr) {
    return call.Result(FW_BAD_KEY);
  }
  for (uint32_t i = 0; i < pair_count; ++i) {
    if (std::strcmp(pairs[i].key, kDeviceKey) != 0) return call.Result(FW_BAD_KEY);
  }
  std::lock_guard lock(instance_mutex);
  if (initialized) return call.Result(FW_ALREADY_INITIALIZED);
  initialized = true;
  instance.mode = mode;
  *block = {};
  *handle = &instance;
  return call.Result(FW_OK);
}

ZEM_SIM_EXPORT FW_Status FW_CreateConnectionAttr(FW_Handle handle, const FW_ConnKey* key,
                                                 uint32_t filter_count, const FW_FilterKey* filters, uint32_t,
                                                 FW_Attr** attr) {
  const std::string vm = filters != nullptr ? Text(filters->vm_uuid) : "";
  const std::string vnic = filters != nullptr ? std::to_string(filters->vnic) : "";
  LibraryCall call({__func__, vm.c_str(), vnic.c_str()});
  if (call.fails()) return call.result();
  if (!GoodHandle(handle)) return call.Result(FW_BAD_HANDLE);
  if (key == nullptr || filters == nullptr || attr == nullptr || filter_count != 1 ||
      filters->kind != kFilterKind || Text(filters->agent) != kAgent) {
    return call.Result(FW_BAD_KEY);
  }
  if (!firewall::FindFilter(vm, filters->vnic)) return call.Result(FW_NO_SUCH_VNIC);
  *attr = attributes.Make({vm, filters->vnic, ConnectionText(*key), "", 0});
  return call.Result(FW_OK);
}

ZEM_SIM_EXPORT FW_Status FW_AddAttrUserSID(FW_Attr* attr, const char* user) {
  LibraryCall call({__func__, nullptr, nullptr, user});
  if (call.fails()) return call.result();
  if (!attributes.Has(attr)) return BadAttribute(call, __func__);
  if (user == nullptr || !tree::GoodName(user)) return call.Result(FW_BAD_KEY);
  attr->user = user;
  return call.Result(FW_OK);
}

ZEM_SIM_EXPORT FW_Status FW_AddAttrProcessHash(FW_Attr* attr, uint64_t hash) {
  LibraryCall call({__func__});
  if (call.fails()) return call.result();
  if (!attributes.Has(attr)) return BadAttribute(call, __func__);
  attr->process = hash;
  return call.Result(FW_OK);
}

ZEM_SIM_EXPORT FW_Status FW_SetConnectionAttr(FW_Handle handle, const FW_ConnKey* key, uint32_t,
                                              FW_Attr* attr, uint32_t* result) {
  const bool known = attributes.Has(attr);
  const std::string vnic = known ? std::to_string(attr->vnic) : "";
  LibraryCall call({__func__, known ? attr->vm_uuid.c_str() : nullptr, known ? vnic.c_str() : nullptr,
                    known ? attr->user.c_str() : nullptr});
  if (call.fails()) return call.result();
  if (!GoodHandle(handle)) return call.Result(FW_BAD_HANDLE);
  if (!known) return BadAttribute(call, __func__);
  if (key == nullptr || ConnectionText(*key) != attr->connection) return call.Result(FW_BAD_KEY);
  if (!firewall::FindFilter(attr->vm_uuid, attr->vnic)) return call.Result(FW_NO_SUCH_VNIC);
  if (!firewall::HasMembership(attr->user)) return call.Result(FW_UNKNOWN_MEMBERSHIP);
  if (result != nullptr) *result = 0;
  const bool put =
      firewall::PutConnection({attr->vm_uuid, attr->vnic, attr->connection, attr->user, attr->process});
  return call.Result(put ? FW_OK : FW_NO_MEMORY);
}

ZEM_SIM_EXPORT FW_Status FW_AddAttrUid2MultiSid(FW_Handle handle, FW_Attr* attr, const char* user,
                                                const char* const* groups, uint16_t group_count,
                                                uint32_t user_hash) {
  LibraryCall call({__func__, nullptr, nullptr, user});
  if (call.fails()) return call.result();
  if (!GoodHandle(handle)) return call.Result(FW_BAD_HANDLE);
  if (!attributes.Has(attr)) return BadAttribute(call, __func__);
  if (user == nullptr || (groups == nullptr && group_count != 0)) return call.Result(FW_BAD_KEY);
  firewall::Membership membership{user, user_hash, {}, attr->vnic};
  for (uint16_t i = 0; i < group_count; ++i) membership.groups.emplace_back(groups[i]);
  return call.Result(firewall::PutMembership(membership) ? FW_OK : FW_BAD_KEY);
}

ZEM_SIM_EXPORT FW_Status FW_ReleaseConnectionAttr(FW_Attr* attr) {
  LibraryCall call({__func__});
  if (call.fails()) return call.result();
  if (!attributes.Release(attr)) return BadAttribute(call, __func__);
  return call.Result(FW_OK);
}

ZEM_SIM_EXPORT const char* FW_StatusToString(FW_Status status) {
  switch (status) {
    case FW_OK:
      return "success";
    case FW_BAD_HANDLE:
      return "bad handle";
    case FW_BAD_KEY:
      return "bad key";
    case FW_NO_SUCH_VNIC:
      return "no such vNIC";
    case FW_ALREADY_INITIALIZED:
      return "already initialized";
    case FW_NO_MEMORY:
      return "no memory";
    case FW_UNKNOWN_MEMBERSHIP:
      return "unknown group membership";
    default:
      return "unknown status";
  }
}
