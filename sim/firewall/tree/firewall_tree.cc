#include "sim/firewall/tree/firewall_tree.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>

#include "sim/switch/tree/json_file.h"
#include "sim/switch/tree/state_tree.h"

namespace zem::sim::firewall {
namespace {

struct FaultName {
  const char* name;
  DeviceFault fault;
};
constexpr std::array kFaultNames = {
    FaultName{"none", DeviceFault::kNone},
    FaultName{"null-buffer", DeviceFault::kNullBuffer},
    FaultName{"more", DeviceFault::kMore},
    FaultName{"fewer", DeviceFault::kFewer},
    FaultName{"unterminated", DeviceFault::kUnterminated},
};

std::string Folder(const char* kind) { return tree::Root() + "/firewall/" + kind; }
std::string FiltersFolder() { return Folder("filters"); }
std::string ConnectionsFolder() { return Folder("connections"); }
std::string MembershipsFolder() { return Folder("memberships"); }
std::string FaultFile() { return tree::Root() + "/firewall/device-fault"; }

std::string FilterName(const std::string& vm_uuid, uint32_t vnic) {
  return vm_uuid + "@" + std::to_string(vnic) + ".json";
}

uint64_t Number(const cJSON* object, const char* name) {
  return std::strtoull(JsonString(object, name).c_str(), nullptr, 10);
}

// As text, since a number of JSON is not exact.
void SetNumber(cJSON* object, const char* name, uint64_t number) {
  SetJson(object, name, std::to_string(number));
}

template <class Item, class Read>
std::vector<Item> ReadAll(const std::string& folder, Read read) {
  std::vector<Item> items;
  auto names = tree::List(folder).value_or(std::vector<std::string>());
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    if (const JsonFile file = ReadJson(folder + "/" + name)) items.push_back(read(file.get()));
  }
  return items;
}

Filter ReadFilter(const cJSON* file) {
  Filter filter;
  filter.name = JsonString(file, "name");
  filter.vm_uuid = JsonString(file, "vm_uuid");
  filter.vnic = static_cast<uint32_t>(Number(file, "vnic"));
  filter.bypassed = Number(file, "bypassed");
  filter.dropped = Number(file, "dropped");
  filter.has_vif = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(file, "has_vif")) != 0;
  return filter;
}

bool Write(const std::string& folder, const std::string& name, const cJSON* value) {
  return tree::GoodName(name) && WriteJson(folder + "/" + name, value);
}

}  // namespace

bool Prepare() {
  std::error_code error;
  for (const std::string& folder : {FiltersFolder(), ConnectionsFolder(), MembershipsFolder()}) {
    std::filesystem::create_directories(folder, error);
    if (error) return false;
  }
  return true;
}

bool PutFilter(const Filter& filter) {
  const JsonFile file(cJSON_CreateObject());
  SetJson(file.get(), "name", filter.name);
  SetJson(file.get(), "vm_uuid", filter.vm_uuid);
  SetNumber(file.get(), "vnic", filter.vnic);
  SetNumber(file.get(), "bypassed", filter.bypassed);
  SetNumber(file.get(), "dropped", filter.dropped);
  SetJson(file.get(), "has_vif", filter.has_vif);
  return Write(FiltersFolder(), FilterName(filter.vm_uuid, filter.vnic), file.get());
}

bool RemoveFilter(const std::string& vm_uuid, uint32_t vnic) {
  const std::string name = FilterName(vm_uuid, vnic);
  return tree::GoodName(name) && tree::RemoveFile(FiltersFolder() + "/" + name);
}

std::optional<Filter> FindFilter(const std::string& vm_uuid, uint32_t vnic) {
  const std::string name = FilterName(vm_uuid, vnic);
  const JsonFile file = tree::GoodName(name) ? ReadJson(FiltersFolder() + "/" + name) : nullptr;
  if (!file) return std::nullopt;
  return ReadFilter(file.get());
}

std::vector<Filter> Filters() { return ReadAll<Filter>(FiltersFolder(), ReadFilter); }

bool PutConnection(const Connection& connection) {
  const JsonFile file(cJSON_CreateObject());
  SetJson(file.get(), "vm_uuid", connection.vm_uuid);
  SetNumber(file.get(), "vnic", connection.vnic);
  SetJson(file.get(), "key", connection.key);
  SetJson(file.get(), "user", connection.user);
  SetNumber(file.get(), "process", connection.process);
  const std::string name = connection.vm_uuid + "@" + std::to_string(connection.vnic) + " " + connection.key;
  return Write(ConnectionsFolder(), name, file.get());
}

std::vector<Connection> Connections() {
  return ReadAll<Connection>(ConnectionsFolder(), [](const cJSON* file) {
    return Connection{JsonString(file, "vm_uuid"), static_cast<uint32_t>(Number(file, "vnic")),
                      JsonString(file, "key"), JsonString(file, "user"), Number(file, "process")};
  });
}

bool PutMembership(const Membership& membership) {
  const JsonFile file(cJSON_CreateObject());
  SetJson(file.get(), "user", membership.user);
  SetNumber(file.get(), "user_hash", membership.user_hash);
  SetNumber(file.get(), "vnic", membership.vnic);
  cJSON* const groups = cJSON_AddArrayToObject(file.get(), "groups");
  for (const std::string& group : membership.groups) {
    cJSON_AddItemToArray(groups, cJSON_CreateString(group.c_str()));
  }
  return Write(MembershipsFolder(), membership.user, file.get());
}

bool HasMembership(const std::string& user) {
  return tree::GoodName(user) && tree::Exists(MembershipsFolder() + "/" + user);
}

bool ForgetMembership(const std::string& user) {
  return tree::GoodName(user) && tree::RemoveFile(MembershipsFolder() + "/" + user);
}

std::vector<Membership> Memberships() {
  return ReadAll<Membership>(MembershipsFolder(), [](const cJSON* file) {
    Membership membership{JsonString(file, "user"),
                          static_cast<uint32_t>(Number(file, "user_hash")),
                          {},
                          static_cast<uint32_t>(Number(file, "vnic"))};
    const cJSON* group = nullptr;
    cJSON_ArrayForEach(group, cJSON_GetObjectItemCaseSensitive(file, "groups")) {
      if (cJSON_IsString(group)) membership.groups.emplace_back(group->valuestring);
    }
    return membership;
  });
}

void Restart() {
  const tree::TreeLock lock;
  for (const std::string& folder : {ConnectionsFolder(), MembershipsFolder()}) {
    for (const std::string& name : tree::List(folder).value_or(std::vector<std::string>())) {
      static_cast<void>(tree::RemoveFile(folder + "/" + name));  // another restart may have removed it
    }
  }
}

std::optional<DeviceFault> DeviceFaultOf(const std::string& name) {
  for (const FaultName& row : kFaultNames) {
    if (name == row.name) return row.fault;
  }
  return std::nullopt;
}

void SetDeviceFault(DeviceFault fault) {
  for (const FaultName& row : kFaultNames) {
    if (row.fault != fault) continue;
    static_cast<void>(tree::WriteFile(FaultFile(), row.name));
  }
}

DeviceFault CurrentDeviceFault() {
  return DeviceFaultOf(tree::ReadFile(FaultFile()).value_or("none")).value_or(DeviceFault::kNone);
}

}  // namespace zem::sim::firewall
