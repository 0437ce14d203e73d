#include "app/zema/migration/migration_record.h"

#include <utility>

namespace zem::zema {
namespace {

// The beginning of the operation ids of each kind, as the host expects it.
constexpr std::array<const char*, 3> kStems = {"", "migrate-knl-and-pnic-to-pln",
                                               "migrate-knl-and-pnic-to-logical-switch"};

}  // namespace

std::string MigrationRecord::Begin(Kind kind) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  const auto index = static_cast<size_t>(kind);
  kind_ = kind;
  op_id_ = kStems.at(index) + std::to_string(serials_.at(index)++);
  return op_id_;
}

void MigrationRecord::End() {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  kind_ = Kind::kNone;
  op_id_.clear();
  left_.clear();
}

std::vector<std::string> MigrationRecord::TakeLeft() {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  return std::exchange(left_, {});
}

bool MigrationRecord::IsMigrating(const std::string& op_id) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  return kind_ != Kind::kNone && op_id_ == op_id;
}

void MigrationRecord::NoteLeft(const std::string& op_id, const std::string& vif) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  if (kind_ != Kind::kNone && op_id_ == op_id && !vif.empty()) left_.push_back(vif);
}

MigrationRecord::Kind MigrationRecord::kind() {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  return kind_;
}

}  // namespace zem::zema
