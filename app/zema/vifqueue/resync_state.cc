#include "app/zema/vifqueue/resync_state.h"

namespace zem::zema {
namespace {

std::string KeyOf(const std::string& ls, const std::string& vif) { return ls + "-" + vif; }

}  // namespace

void ResyncState::Begin() {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  in_progress_ = true;
}

void ResyncState::End() {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  in_progress_ = false;
  record_.clear();
}

bool ResyncState::InProgress() {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  return in_progress_;
}

void ResyncState::Note(const std::string& ls, const std::string& vif, const char* operation) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  if (in_progress_) record_[KeyOf(ls, vif)] = operation;
}

std::optional<std::string> ResyncState::Noted(const std::string& ls, const std::string& vif) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  const auto found = record_.find(KeyOf(ls, vif));
  if (found == record_.end()) return std::nullopt;
  return found->second;
}

}  // namespace zem::zema
