#pragma once

#include <map>
#include <string>
#include <variant>
#include <vector>

namespace ZemDa {

using Properties = std::map<std::string, std::string>;

/// The value, empty when there is none.
inline std::string ValueOf(const Properties& properties, const std::string& name) {
  const auto found = properties.find(name);
  return found == properties.end() ? std::string() : found->second;
}

/// A VM as the inventory daemon tells it.
struct QubVM {
  struct Device {
    Properties properties;
    std::vector<std::string> addresses;
    /// The record says what the device's addresses are, even if it has none.
    bool tells_addresses = false;
    bool removed = false;
  };

  std::vector<Device> devices;
  Properties properties;
  std::vector<Properties> runtime_devices;
  /// The list of runtime devices is known to be empty.
  bool no_runtime_devices = false;
};

/// The host as the inventory daemon tells it.
struct QubHost {
  struct Dpu {
    std::string id;
    Properties properties;
  };

  Properties properties;
  std::vector<std::string> management_interfaces;
  std::vector<Dpu> dpus;
};

struct InventoryUpdate {
  /// "enter", "leave" or "modify".
  std::string type;
  std::variant<QubVM, QubHost> object;
};

/// A line of a reply, cut at its first "=".
struct ReplyLine {
  std::string key;
  std::string value;
};

}  // namespace ZemDa
