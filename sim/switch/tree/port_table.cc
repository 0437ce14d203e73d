#include "sim/switch/tree/port_table.h"

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "platform/switchlib/switchlib.h"
#include "sim/switch/tree/state_tree.h"

namespace zem::sim::ports {
namespace {

constexpr const char* kVolatile = ".volatile.";

std::string FreshState() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return "{\"connectedVnic\": \"\", \"vmUuid\": \"\", \"linkUp\": false, \"addedAt\": " +
         std::to_string(now.tv_sec) + ", \"addCount\": 1}\n";
}

}  // namespace

std::string PropertyPath(const std::string& dvs, const std::string& port, std::string_view property) {
  return tree::PortDir(dvs, port).append("/p/").append(property);
}

bool Has(const std::string& dvs, const std::string& port) { return tree::Exists(tree::PortDir(dvs, port)); }

uint32_t Add(const std::string& dvs, const std::string& port, const ValueList& properties) {
  if (!tree::Exists(tree::SwitchDir(dvs) + "/meta.json")) return DVS_NOT_FOUND;
  const std::string directory = tree::PortDir(dvs, port);
  if (tree::Exists(directory)) return DVS_EXISTS;
  const std::string hidden = tree::HiddenBeside(directory);
  ::mkdir((tree::SwitchDir(dvs) + "/ports").c_str(), 0755);
  bool made = ::mkdir(hidden.c_str(), 0755) == 0 && ::mkdir((hidden + "/p").c_str(), 0755) == 0 &&
              tree::WriteFile(hidden + "/state.json", FreshState());
  for (const ValueList::Item& item : properties.items()) {
    made = made && tree::WriteFile(hidden + "/p/" + item.name, tree::PropertyFile(item.flags, item.value));
  }
  if (made && ::rename(hidden.c_str(), directory.c_str()) == 0) return 0;
  std::error_code ignored;
  std::filesystem::remove_all(hidden, ignored);
  return DVS_FAILURE;
}

uint32_t Remove(const std::string& dvs, const std::string& port) {
  return tree::RemoveTree(tree::PortDir(dvs, port)) ? 0 : DVS_NOT_FOUND;
}

std::optional<ValueList> State(const std::string& dvs, const std::string& port, bool persistent) {
  auto names = tree::List(tree::PortDir(dvs, port) + "/p");
  if (!names) return std::nullopt;
  std::sort(names->begin(), names->end());
  ValueList list;
  for (const std::string& name : *names) {
    if (persistent && name.find(kVolatile) != std::string::npos) continue;
    if (auto property = tree::ReadProperty(PropertyPath(dvs, port, name))) {
      list.items().push_back({name, std::move(property->bytes), property->flags});
    }
  }
  return list;
}

void RemoveAll(const std::string& dvs) {
  const std::string directory = tree::SwitchDir(dvs) + "/ports";
  static_cast<void>(tree::RemoveTree(directory));
  ::mkdir(directory.c_str(), 0755);
}

}  // namespace zem::sim::ports
