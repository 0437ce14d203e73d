#include "app/zema/covedb/pending_logical_switches.h"

#include <utility>

namespace zem::zema {

void PendingLogicalSwitches::AddPendingLs(const std::string& uuid, Update update) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  updates_[uuid] = std::move(update);
}

void PendingLogicalSwitches::RemovePendingLs(const std::string& uuid) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  updates_.erase(uuid);
}

std::vector<std::string> PendingLogicalSwitches::GetPendingLsKeys() {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  std::vector<std::string> keys;
  keys.reserve(updates_.size());
  for (const auto& [uuid, update] : updates_) keys.push_back(uuid);
  return keys;
}

std::map<std::string, PendingLogicalSwitches::Update> PendingLogicalSwitches::Copy() {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  return updates_;
}

void PendingLogicalSwitches::ClearPendingLs() {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  updates_.clear();
}

size_t PendingLogicalSwitches::size() {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  return updates_.size();
}

}  // namespace zem::zema
