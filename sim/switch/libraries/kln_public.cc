#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "sim/switch/libraries/dvs_data.h"
#include "sim/switch/tree/library_call.h"
#include "sim/switch/tree/port_table.h"
#include "sim/switch/tree/state_tree.h"
#include "sim/switch/tree/uplinks.h"

// The ports and properties of the switches, as files of the tree.  Arguments are checked as a kernel would
// check them: an invalid name is "not found" in a look-up, and a bad argument in a call that creates
// something.

using namespace zem::sim;

namespace {

std::atomic<int> listings{0};  // callers that are inside a port list

bool Good(const char* name) { return name != nullptr && tree::GoodName(name); }

void CheckFlags(const char* function, uint32_t flags) {
  if (flags != DVS_PROPERTY_FLAGS) Violation(function, "flags of a port's property other than 16");
}

uint32_t Give(const std::optional<tree::Property>& property, LibraryCall& call, void** value,
              uint32_t* length) {
  if (!property) return call.Result(DVS_NOT_FOUND);
  call.SetLength(static_cast<uint32_t>(property->bytes.size()));
  return call.Result(GiveBytes(property->bytes, value, length));
}

uint32_t GiveState(const std::optional<ValueList>& state, LibraryCall& call, void** buffer,
                   uint32_t* length) {
  if (!state) return call.Result(DVS_NOT_FOUND);
  const std::string bytes = state->Serialize();
  call.SetLength(static_cast<uint32_t>(bytes.size()));
  return call.Result(GiveBytes(bytes, buffer, length));
}

// The answer to a port list, built directly in the buffer for the caller: a switch may have tens of thousands
// of ports.
class PortRecords {
 public:
  ~PortRecords() { std::free(data_); }
  void Add(std::string_view name) {
    if (name.size() >= DVS_PORT_KEY_SIZE || !Reserve(count_ + 1)) return;
    DVSPortRecord* const record =
        reinterpret_cast<DVSPortRecord*>(data_ + sizeof(DVSPortListHeader)) + count_++;
    std::memset(record, 0, sizeof(*record));
    std::memcpy(record->key, name.data(), name.size());
  }
  uint32_t length() const {
    return static_cast<uint32_t>(sizeof(DVSPortListHeader) + count_ * sizeof(DVSPortRecord));
  }
  /// Null when memory is exhausted.
  void* Take() {
    if (!Reserve(count_)) return nullptr;
    const DVSPortListHeader header{static_cast<uint32_t>(count_), 0};
    std::memcpy(data_, &header, sizeof(header));
    return std::exchange(data_, nullptr);
  }

 private:
  bool Reserve(size_t count) {
    if (data_ != nullptr && count <= reserved_) return true;
    const size_t wanted = std::max<size_t>(64, 2 * count);
    auto* const data =
        static_cast<char*>(std::realloc(data_, sizeof(DVSPortListHeader) + wanted * sizeof(DVSPortRecord)));
    if (data == nullptr) return false;
    data_ = data;
    reserved_ = wanted;
    return true;
  }

  char* data_ = nullptr;
  size_t count_ = 0;
  size_t reserved_ = 0;
};

std::string SwitchPropertyPath(const char* dvs, const char* folder, const char* property) {
  return tree::SwitchDir(dvs) + "/" + folder + "/" + property;
}

// A teaming value has to have the length that it states.
bool WellFormed(const char* property, std::string_view value) {
  const std::string_view name = property;
  if (name != "com.orlane.vswitch.teaming") return true;
  VSTeamPolicy policy;
  if (value.size() < sizeof(policy)) return false;
  std::memcpy(&policy, value.data(), sizeof(policy));
  const uint64_t names = uint64_t{policy.num_active} + policy.num_standby;
  return policy.size == value.size() && value.size() == sizeof(policy) + names * sizeof(DVSName);
}

constexpr std::string_view kCheckParam = "com.orlane.vswitch.vlanmtucheck.param";
constexpr std::string_view kCheckDeploy = "com.orlane.vswitch.vlanmtucheck.deploy";
constexpr std::string_view kDeployed("\x01\0\0\0\0", 5);
constexpr size_t kCheckBitmap = 512;
constexpr uint32_t kCheckParamFlags = 8;
constexpr std::string_view kUplinkPorts = "com.orlane.common.host.uplinkPorts";

// A test of VLANs and MTU begins with its deployment, over the VLANs that were set before; the caller holds
// the tree's lock.
void FollowCheck(const char* function, const std::string& dvs, std::string_view property,
                 std::string_view bytes, uint32_t flags) {
  if (property == kCheckParam) {
    if (bytes.size() != kCheckBitmap || flags != kCheckParamFlags)
      Violation(function, "VLANs to test that are no bitmap of 512 bytes with the flag 8");
  } else if (property == kCheckDeploy) {
    if (bytes != kDeployed || flags != DVS_PROPERTY_FLAGS) {
      Violation(function, "a test's deployment other than 1, 0, 0, 0, 0 with the flag 16");
    } else {
      uplinks::BeginCheck(dvs);
    }
  }
}

uint32_t SetSwitchProperty(const char* function, const char* folder, const char* dvs, const char* property,
                           const void* value, uint32_t length, uint32_t flags) {
  LibraryCall call({function, dvs, nullptr, property});
  call.SetLength(length);
  if (call.fails()) return call.result();
  if (!Good(dvs)) return call.Result(DVS_NOT_FOUND);
  const std::string_view bytes(static_cast<const char*>(value), length);
  if (!Good(property) || !WellFormed(property, bytes)) return call.Result(DVS_BAD_ARGUMENT);
  const tree::TreeLock lock;
  const bool written =
      tree::WriteFile(SwitchPropertyPath(dvs, folder, property), tree::PropertyFile(flags, bytes));
  if (written) FollowCheck(function, dvs, property, bytes, flags);
  return call.Result(written ? 0 : DVS_NOT_FOUND);
}

uint32_t GetSwitchProperty(const char* function, const char* folder, const char* dvs, const char* property,
                           void** value, uint32_t* length) {
  LibraryCall call({function, dvs, nullptr, property});
  if (call.fails()) return call.result();
  if (!Good(dvs) || !Good(property)) return call.Result(DVS_NOT_FOUND);
  auto found = tree::ReadProperty(SwitchPropertyPath(dvs, folder, property));
  if (!found && property == kUplinkPorts && tree::Exists(tree::SwitchDir(dvs) + "/meta.json"))
    found = {DVS_PROPERTY_FLAGS, uplinks::PortList(dvs)};
  return Give(found, call, value, length);
}

uint32_t ClearSwitchProperty(const char* function, const char* folder, const char* dvs,
                             const char* property) {
  LibraryCall call({function, dvs, nullptr, property});
  if (call.fails()) return call.result();
  if (!Good(dvs) || !Good(property)) return call.Result(DVS_NOT_FOUND);
  const tree::TreeLock lock;
  if (property == kCheckParam || property == kCheckDeploy) uplinks::EndCheck(dvs);
  return call.Result(tree::RemoveFile(SwitchPropertyPath(dvs, folder, property)) ? 0 : DVS_NOT_FOUND);
}

}  // namespace

ZEM_SIM_EXPORT uint32_t DVSKNL_PortAdd(const char* dvs, const char* port, const void* buffer,
                                       uint32_t length) {
  LibraryCall call({__func__, dvs, port});
  call.SetLength(length);
  if (call.fails()) return call.result();
  if (!Good(dvs)) return call.Result(DVS_NOT_FOUND);
  if (!Good(port) || std::strlen(port) >= DVS_PORT_KEY_SIZE) return call.Result(DVS_BAD_ARGUMENT);
  const auto properties = ValueList::Deserialize({static_cast<const char*>(buffer), length});
  if (!properties) return call.Result(DVS_BAD_ARGUMENT);
  for (const ValueList::Item& item : properties->items()) {
    if (!tree::GoodName(item.name)) return call.Result(DVS_BAD_ARGUMENT);
    CheckFlags(__func__, item.flags);
  }
  const tree::TreeLock lock;
  return call.Result(ports::Add(dvs, port, *properties));
}

ZEM_SIM_EXPORT uint32_t DVSKNL_PortRemove(const char* dvs, const char* port) {
  LibraryCall call({__func__, dvs, port});
  if (call.fails()) return call.result();
  if (!Good(dvs) || !Good(port)) return call.Result(DVS_NOT_FOUND);
  const tree::TreeLock lock;
  return call.Result(ports::Remove(dvs, port));
}

ZEM_SIM_EXPORT uint32_t DVSKNL_PortFind(const char* dvs, const char* port) {
  LibraryCall call({__func__, dvs, port});
  if (call.fails()) return call.result();
  return call.Result(Good(dvs) && Good(port) && ports::Has(dvs, port) ? 0 : DVS_NOT_FOUND);
}

ZEM_SIM_EXPORT uint32_t DVSKNL_PortDataSet(const char* dvs, const char* port, const char* property,
                                           const void* value, uint32_t length, uint32_t flags) {
  LibraryCall call({__func__, dvs, port, property});
  call.SetLength(length);
  if (call.fails()) return call.result();
  if (!Good(dvs) || !Good(port)) return call.Result(DVS_NOT_FOUND);
  if (!Good(property)) return call.Result(DVS_BAD_ARGUMENT);
  CheckFlags(__func__, flags);
  const tree::TreeLock lock;
  const bool written = tree::WriteFile(ports::PropertyPath(dvs, port, property),
                                       tree::PropertyFile(flags, {static_cast<const char*>(value), length}));
  return call.Result(written ? 0 : DVS_NOT_FOUND);
}

ZEM_SIM_EXPORT uint32_t DVSKNL_PortDataGet(const char* dvs, const char* port, const char* property,
                                           void** value, uint32_t* length) {
  LibraryCall call({__func__, dvs, port, property});
  if (call.fails()) return call.result();
  if (!Good(dvs) || !Good(port) || !Good(property)) return call.Result(DVS_NOT_FOUND);
  auto found = tree::ReadProperty(ports::PropertyPath(dvs, port, property));
  if (!found) {
    if (auto of_uplink = uplinks::PortValue(dvs, port, property))
      found = {DVS_PROPERTY_FLAGS, std::move(*of_uplink)};
  }
  return Give(found, call, value, length);
}

ZEM_SIM_EXPORT uint32_t DVSKNL_PortDataClear(const char* dvs, const char* port, const char* property) {
  LibraryCall call({__func__, dvs, port, property});
  if (call.fails()) return call.result();
  if (!Good(dvs) || !Good(port) || !Good(property)) return call.Result(DVS_NOT_FOUND);
  const tree::TreeLock lock;
  return call.Result(tree::RemoveFile(ports::PropertyPath(dvs, port, property)) ? 0 : DVS_NOT_FOUND);
}

ZEM_SIM_EXPORT uint32_t DVSKNL_PortStateGet(const char* dvs, const char* port, void** buffer,
                                            uint32_t* length) {
  LibraryCall call({__func__, dvs, port});
  if (call.fails()) return call.result();
  if (!Good(dvs) || !Good(port)) return call.Result(DVS_NOT_FOUND);
  const tree::TreeLock lock(tree::TreeLock::Kind::kShared);
  return GiveState(ports::State(dvs, port, false), call, buffer, length);
}

ZEM_SIM_EXPORT uint32_t DVSKNL_PersistentPortStateGet(const char* dvs, const char* port, uint32_t format,
                                                      void** buffer, uint32_t* length) {
  LibraryCall call({__func__, dvs, port});
  if (call.fails()) return call.result();
  if (format != DVS_FORMAT) {
    Violation(__func__, "a format other than 100");
    return call.Result(DVS_BAD_ARGUMENT);
  }
  if (!Good(dvs) || !Good(port)) return call.Result(DVS_NOT_FOUND);
  const tree::TreeLock lock(tree::TreeLock::Kind::kShared);
  return GiveState(ports::State(dvs, port, true), call, buffer, length);
}

ZEM_SIM_EXPORT uint32_t DVSKNL_SwitchPortList(const char* dvs, void** buffer, uint32_t* length) {
  struct Inside {
    Inside() : others(listings.fetch_add(1)) {}
    ~Inside() { listings.fetch_sub(1); }
    const int others;
  } const inside;
  if (inside.others != 0) Violation(__func__, "two threads of the process are in a port list");
  LibraryCall call({__func__, dvs});
  if (call.fails()) return call.result();
  if (!Good(dvs)) return call.Result(DVS_NOT_FOUND);
  PortRecords records;
  if (!tree::ForEachName(tree::SwitchDir(dvs) + "/ports",
                         [&records](std::string_view name) { records.Add(name); })) {
    return call.Result(DVS_NOT_FOUND);
  }
  call.SetLength(records.length());
  *length = records.length();
  *buffer = records.Take();
  return call.Result(*buffer == nullptr ? DVS_FAILURE : 0);
}

ZEM_SIM_EXPORT uint32_t DVSKNL_HostPropSet(const char* dvs, const char* property, const void* value,
                                           uint32_t length, uint32_t flags) {
  return SetSwitchProperty(__func__, "host", dvs, property, value, length, flags);
}
ZEM_SIM_EXPORT uint32_t DVSKNL_HostPropGet(const char* dvs, const char* property, void** value,
                                           uint32_t* length) {
  return GetSwitchProperty(__func__, "host", dvs, property, value, length);
}
ZEM_SIM_EXPORT uint32_t DVSKNL_HostPropClear(const char* dvs, const char* property) {
  return ClearSwitchProperty(__func__, "host", dvs, property);
}
ZEM_SIM_EXPORT uint32_t DVSKNL_GlobalPropSet(const char* dvs, const char* property, const void* value,
                                             uint32_t length, uint32_t flags) {
  return SetSwitchProperty(__func__, "global", dvs, property, value, length, flags);
}
ZEM_SIM_EXPORT uint32_t DVSKNL_GlobalPropGet(const char* dvs, const char* property, void** value,
                                             uint32_t* length) {
  return GetSwitchProperty(__func__, "global", dvs, property, value, length);
}
ZEM_SIM_EXPORT uint32_t DVSKNL_GlobalPropClear(const char* dvs, const char* property) {
  return ClearSwitchProperty(__func__, "global", dvs, property);
}
