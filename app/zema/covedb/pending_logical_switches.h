#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "framework/tasks/synchronizable.h"
#include "proto/covedb/covedb.pb.h"

namespace zem::zema {

/// The logical switches that the store has sent and that are not realized yet, by uuid text, each with its
/// last update.  Switches whose realization failed are realized again from here.
///
/// Threads: all operations from any thread.
class PendingLogicalSwitches {
 public:
  using Update = orlane::zem::covedb::MonitorUpdateMsg;

  void AddPendingLs(const std::string& uuid, Update update);
  void RemovePendingLs(const std::string& uuid);
  /// Called when the switch is realized up to `revision`, or removed (-1): removes the entry unless a later
  /// update has arrived.
  void RemoveRealized(const std::string& uuid, int32_t revision);
  bool Contains(const std::string& uuid);
  std::vector<std::string> GetPendingLsKeys();
  std::map<std::string, Update> Copy();
  void ClearPendingLs();
  size_t size();

 private:
  struct Entry {
    Update update;
    int32_t revision;  // -1: a removal
  };

  Synchronizable lock_;  // guards entries_
  std::map<std::string, Entry> entries_;
};

}  // namespace zem::zema
