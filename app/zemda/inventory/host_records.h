#pragma once

#include <memory>
#include <optional>
#include <string>

#include "app/zemda/hosttables/host_tables.h"
#include "app/zemda/inventory/qub_objects.h"

namespace orlane::zem::ida {
class HostMsg;
class InventoryObjectMsg;
}  // namespace orlane::zem::ida

namespace ZemDa {

/// The manager's records of the host, and what it was last told.
///
/// Threads: the collector's.
class HostRecords {
 public:
  explicit HostRecords(HostTables tables);
  ~HostRecords();

  /// Everything, for a full sync.
  orlane::zem::ida::InventoryObjectMsg Full(const std::string& update_type, const QubHost& host);
  /// What the update carries; nothing when it changes nothing.
  std::optional<orlane::zem::ida::InventoryObjectMsg> Update(const std::string& update_type,
                                                             const QubHost& host);

 private:
  void Fill(const QubHost& host, orlane::zem::ida::HostMsg* message);

  const HostTables tables_;
  std::unique_ptr<orlane::zem::ida::HostMsg> told_;
  bool has_told_ = false;
};

}  // namespace ZemDa
