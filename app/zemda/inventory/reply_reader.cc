#include "app/zemda/inventory/reply_reader.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "app/zemda/inventory/property_tables.h"
#include "framework/log/log.h"
#include "platform/core/text_repair.h"

namespace ZemDa {
namespace {

constexpr zem::LogSource kLog{"tarvik", "zemda"};

constexpr const char* kNone = "None";
constexpr const char* kEmpty = "empty";
constexpr const char* kDevicePath = "config.hardware.device";

bool Kept(const std::string& name) {
  return std::ranges::any_of(kVmProperties, [&](const char* each) { return name == each; });
}

// The device of "config.hardware.device[4000].backing"; empty for another path.
std::string DeviceOf(const std::string& path) {
  const size_t open = path.find('[');
  const size_t close = open == std::string::npos ? open : path.find_first_of("[]", open + 1);
  if (close == std::string::npos || path.substr(0, open) != kDevicePath) return {};
  return path.substr(open + 1, close - open - 1);
}

}  // namespace

ReplyLine SplitLine(const std::string& line) {
  const size_t at = line.find('=');
  if (at == std::string::npos) return {zem::RepairText(line), {}};
  return {zem::RepairText(line.substr(0, at)), zem::RepairText(line.substr(at + 1))};
}

bool ReplyReader::AtBlockEnd() const {
  return at_ >= lines_.size() || lines_[at_].key == "ChangeDataEnd" || lines_[at_].key == "done";
}

// The next line of the block; null at its end.
const ReplyLine* ReplyReader::Take() { return AtBlockEnd() ? nullptr : &lines_[at_++]; }

// The value of the next line if it has the key; nothing is consumed otherwise.
std::optional<std::string> ReplyReader::TakeValue(const char* key) {
  if (AtBlockEnd() || lines_[at_].key != key) return std::nullopt;
  return lines_[at_++].value;
}

std::optional<InventoryUpdate> ReplyReader::Next() {
  while (at_ < lines_.size()) {
    const ReplyLine& line = lines_[at_++];
    if (line.key == "UpdateType") {
      update_type_ = line.value;
    } else if (line.key == "ObjectType" && line.value == "VM") {
      return InventoryUpdate{update_type_, ReadVm()};
    } else if (line.key == "ObjectType" && line.value == "Host") {
      return InventoryUpdate{update_type_, ReadHost()};
    }
  }
  return std::nullopt;
}

// --- VMs.

QubVM ReplyReader::ReadVm() {
  QubVM vm;
  bool changes = false;
  while (const ReplyLine* const line = Take()) {
    if (line->key == "ChangeDataStart") {
      changes = true;
    } else if (line->key == "Name") {
      if (changes) {
        ReadVmChange(line->value, &vm);
      } else {
        vm.properties["name"] = line->value;
      }
    } else if (line->key == "MoId") {
      vm.properties["MoId"] = vm.properties["hostLocalId"] = line->value;
    } else if (line->key == kVniProperties[0].name) {
      ReadDevice(*line, &vm);
    } else if (line->key == "MacKey") {
      ReadAddresses(*line, &vm);
    } else if (line->key == "runtime.device") {
      ReadRuntimeDevice(*line, &vm);
    }
  }
  return vm;
}

// The position says that a line belongs to the record, its key where the value goes.
void ReplyReader::ReadDevice(const ReplyLine& first, QubVM* vm) {
  QubVM::Device device;
  const ReplyLine* line = &first;
  for (size_t i = 0; i < kVniProperties.size(); ++i) {
    if (i > 0) line = Take();
    if (line == nullptr) {
      ZLOG_WARN("A device of the VM %s has %zu of %zu lines and is dropped",
                ValueOf(vm->properties, "MoId").c_str(), i, kVniProperties.size());
      return;
    }
    if (line->value != kNone) device.properties[line->key] = line->value;
  }
  if (device.properties.count("MacKey") != 0) vm->devices.push_back(std::move(device));
}

void ReplyReader::ReadAddresses(const ReplyLine& first, QubVM* vm) {
  const auto addresses = TakeValue("ipAddress");
  if (!addresses) {
    ZLOG_WARN("The device %s of the VM %s has no line of addresses and is dropped", first.value.c_str(),
              ValueOf(vm->properties, "MoId").c_str());
    return;
  }
  if (first.value == kNone) return;
  QubVM::Device device;
  device.properties["MacKey"] = first.value;
  device.tells_addresses = true;
  std::istringstream in(*addresses);
  for (std::string address; in >> address;) device.addresses.push_back(address);
  vm->devices.push_back(std::move(device));
}

void ReplyReader::ReadRuntimeDevice(const ReplyLine& first, QubVM* vm) {
  if (first.value == kEmpty) {
    vm->no_runtime_devices = true;
    return;
  }
  const ReplyLine* const key = Take();
  const ReplyLine* const active = key == nullptr ? nullptr : Take();
  if (active == nullptr) {
    ZLOG_WARN("A runtime device of the VM %s is incomplete and is dropped",
              ValueOf(vm->properties, "MoId").c_str());
    return;
  }
  vm->runtime_devices.push_back({{"MacKey", key->value}, {"runtime.device.uptv2Active", active->value}});
}

void ReplyReader::ReadVmChange(const std::string& name, QubVM* vm) {
  const auto operation = TakeValue("Operation");
  if (!operation) return;
  if (*operation == "nicRemove") {
    QubVM::Device device;
    device.properties["MacKey"] = DeviceOf(name);
    device.removed = true;
    if (!device.properties["MacKey"].empty()) vm->devices.push_back(std::move(device));
    return;
  }
  const auto value = TakeValue("Value");
  if (value && Kept(name)) vm->properties[name] = *value;
}

// --- The host.

QubHost ReplyReader::ReadHost() {
  QubHost host;
  while (const ReplyLine* const line = Take()) {
    if (line->key == "MgmtVnicDevice") {
      ReadManagementInterface(*line, &host);
    } else if (line->key == "host.dpu.Id") {
      ReadDpu(*line, &host);
    } else if (line->key == "Name") {
      ReadHostChange(line->value, &host);
    }
  }
  return host;
}

void ReplyReader::ReadManagementInterface(const ReplyLine& first, QubHost* host) {
  const size_t begin = at_;
  if (!TakeValue("Name")) {
    ZLOG_WARN("Name not found for MgmtVnic.");
    return;
  }
  if (!TakeValue("Operation")) {
    ZLOG_WARN("Operation not found for MgmtVnic.");
    at_ = begin;
    return;
  }
  host->management_interfaces.push_back(first.value);
}

void ReplyReader::ReadDpu(const ReplyLine& first, QubHost* host) {
  QubHost::Dpu dpu;
  dpu.id = first.value;
  for (size_t i = 0; i < kDpuProperties.size(); ++i) {
    const ReplyLine* const line = Take();
    if (line == nullptr) {
      ZLOG_WARN("The DPU %s has %zu of %zu lines and is dropped", dpu.id.c_str(), i, kDpuProperties.size());
      return;
    }
    dpu.properties[line->key] = line->value;
  }
  host->dpus.push_back(std::move(dpu));
}

void ReplyReader::ReadHostChange(const std::string& name, QubHost* host) {
  if (Take() == nullptr) return;
  if (const auto value = TakeValue("Value")) host->properties[name] = *value;
}

}  // namespace ZemDa
