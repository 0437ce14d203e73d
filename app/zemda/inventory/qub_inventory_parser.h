#pragma once

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "app/zemda/inventory/qub_objects.h"

namespace ZemDa {

/// Turns replies of the inventory daemon into objects with all of their identifiers.  A VM without an
/// external id waits for one: the manager knows VMs by it.
///
/// Threads: the collector's.
/// Limits: 64 objects of a VM and 20000 in all wait; the oldest of the VM goes, or the new one.
class QubInventoryParser {
 public:
  std::vector<InventoryUpdate> Parse(const std::vector<ReplyLine>& reply);

  bool full_sync() const { return full_sync_; }
  /// The next reply tells everything.
  void SetFullSync(bool full_sync) { full_sync_ = full_sync; }

 private:
  void TakeVm(InventoryUpdate update, std::vector<InventoryUpdate>* objects);
  void Complete(const std::string& mo_id, Properties* properties);
  void Wait(const std::string& mo_id, QubVM vm);

  bool full_sync_ = false;
  std::map<std::string, Properties> identifiers_;  // by MoId
  std::map<std::string, std::deque<QubVM>> waiting_;
  size_t waiting_count_ = 0;
};

}  // namespace ZemDa
