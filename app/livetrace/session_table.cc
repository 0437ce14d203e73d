#include "app/livetrace/session_table.h"

#include "app/livetrace/livetrace_session.h"

namespace zem::Tarvik {

SessionTable::SessionPtr* SessionTable::FindSlot(uint64_t id, uint32_t side, bool exact) {
  const auto entry = entries_.find(id);
  if (entry == entries_.end()) return nullptr;
  auto& slots = entry->second.slots;
  if (side == 0) return &slots[0];
  return exact || slots[1] != nullptr ? &slots[1] : &slots[0];
}

SessionTable::SessionPtr SessionTable::Find(const orlane::zem::livetrace::LivetraceMetadataMsg& metadata) {
  const SessionPtr* const slot = FindSlot(metadata.session_id(), metadata.side() & 0xff, false);
  return slot == nullptr ? nullptr : *slot;
}

SessionTable::SessionPtr* SessionTable::MakeSlot(uint64_t id, uint32_t side, const std::string& name) {
  if (!entries_.contains(id)) {
    if (entries_.size() >= kMostEntries) return nullptr;
    entries_[id].name = name;
  }
  return FindSlot(id, side, true);
}

bool SessionTable::Erase(uint64_t id, std::vector<SessionPtr>* sessions) {
  const auto entry = entries_.find(id);
  if (entry == entries_.end()) return false;
  for (SessionPtr& slot : entry->second.slots) {
    if (slot != nullptr) sessions->push_back(std::move(slot));
  }
  entries_.erase(entry);
  return true;
}

void SessionTable::Clear(const SessionPtr& session) {
  const auto entry = entries_.find(session->id);
  if (entry == entries_.end()) return;
  for (SessionPtr& slot : entry->second.slots) {
    if (slot == session) slot = nullptr;
  }
}

void SessionTable::Sweep(const std::function<bool(const SessionPtr&)>& gone) {
  for (auto entry = entries_.begin(); entry != entries_.end();) {
    auto& slots = entry->second.slots;
    for (SessionPtr& slot : slots) {
      if (slot != nullptr && gone(slot)) slot = nullptr;
    }
    entry = slots[0] == nullptr && slots[1] == nullptr ? entries_.erase(entry) : std::next(entry);
  }
}

std::vector<std::pair<uint64_t, std::string>> SessionTable::Names() const {
  std::vector<std::pair<uint64_t, std::string>> names;
  for (const auto& [id, entry] : entries_) names.emplace_back(id, entry.name);
  return names;
}

const std::string* SessionTable::NameOf(uint64_t id) const {
  const auto entry = entries_.find(id);
  return entry == entries_.end() ? nullptr : &entry->second.name;
}

}  // namespace zem::Tarvik
