#include "app/zema/vif/prior_attachments.h"

#include <algorithm>

namespace zem::zema {
namespace {

std::string KeyOf(const std::string& vif, const std::string& gcf_path) { return vif + ":" + gcf_path; }

std::string TokenOf(const std::string& vif, const std::string& ls, const std::string& stem) {
  return vif + ":" + ls + ":" + stem;
}

template <class Table>
void DropOldest(Table& table, size_t most) {
  if (table.size() <= most) return;
  table.erase(std::min_element(table.begin(), table.end(), [](const auto& one, const auto& other) {
    return one.second.number < other.second.number;
  }));
}

}  // namespace

void PriorAttachments::Note(const std::string& vif, const std::string& gcf_path, Move move) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  const uint64_t number = next_++;
  operations_[gcf_path] = {TokenOf(vif, move.old_ls, move.op_id_stem), move.old_port, number};
  moves_[KeyOf(vif, gcf_path)] = {std::move(move), number};
  DropOldest(operations_, kMost);
  DropOldest(moves_, kMost);
}

std::optional<PriorAttachments::Move> PriorAttachments::Find(const std::string& vif,
                                                             const std::string& gcf_path) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  const auto found = moves_.find(KeyOf(vif, gcf_path));
  if (found == moves_.end()) return std::nullopt;
  return found->second.move;
}

std::optional<PriorAttachments::Move> PriorAttachments::Take(const std::string& vif,
                                                             const std::string& gcf_path) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  const auto found = moves_.find(KeyOf(vif, gcf_path));
  if (found == moves_.end()) return std::nullopt;
  std::optional<Move> move = std::move(found->second.move);
  moves_.erase(found);
  return move;
}

std::string PriorAttachments::PortToReturnTo(const std::string& vif, const std::string& ls,
                                             const std::string& gcf_path, const std::string& op_id_stem) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  const auto found = operations_.find(gcf_path);
  if (found == operations_.end()) return {};
  if (found->second.token == TokenOf(vif, ls, op_id_stem)) return found->second.old_port;
  operations_.erase(found);
  return {};
}

}  // namespace zem::zema
