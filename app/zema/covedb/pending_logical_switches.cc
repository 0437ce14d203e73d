#include "app/zema/covedb/pending_logical_switches.h"

#include <utility>

#include "proto/covedb/switching_objects.pb.h"

namespace zem::zema {
namespace {

constexpr int32_t kRemoved = -1;

int32_t RevisionOf(const PendingLogicalSwitches::Update& update) {
  orlane::zem::covedb::ObjectOpMsg op;
  orlane::zem::covedb::OpaqueLogSwitchConfigMsg config;
  const bool removal =
      op.ParseFromString(update.operation()) && op.operation() == orlane::zem::covedb::ObjectOpMsg::DELETE;
  if (removal || !config.ParseFromString(update.object())) return kRemoved;
  return config.revision();
}

}  // namespace

void PendingLogicalSwitches::AddPendingLs(const std::string& uuid, Update update) {
  const int32_t revision = RevisionOf(update);
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  entries_[uuid] = Entry{std::move(update), revision};
}

void PendingLogicalSwitches::RemovePendingLs(const std::string& uuid) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  entries_.erase(uuid);
}

void PendingLogicalSwitches::RemoveRealized(const std::string& uuid, int32_t revision) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  const auto entry = entries_.find(uuid);
  if (entry == entries_.end()) return;
  const int32_t pending = entry->second.revision;
  const bool realized =
      revision == kRemoved ? pending == kRemoved : pending != kRemoved && pending <= revision;
  if (realized) entries_.erase(entry);
}

bool PendingLogicalSwitches::Contains(const std::string& uuid) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  return entries_.contains(uuid);
}

std::vector<std::string> PendingLogicalSwitches::GetPendingLsKeys() {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  std::vector<std::string> keys;
  keys.reserve(entries_.size());
  for (const auto& [uuid, entry] : entries_) keys.push_back(uuid);
  return keys;
}

std::map<std::string, PendingLogicalSwitches::Update> PendingLogicalSwitches::Copy() {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  std::map<std::string, Update> updates;
  for (const auto& [uuid, entry] : entries_) updates.emplace(uuid, entry.update);
  return updates;
}

void PendingLogicalSwitches::ClearPendingLs() {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  entries_.clear();
}

size_t PendingLogicalSwitches::size() {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  return entries_.size();
}

}  // namespace zem::zema
