#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "app/zema/common/synchronizable.h"
#include "proto/covedb/covedb.pb.h"

namespace zem::zema {

/// The logical switches that the store told of and that are not realized yet, by uuid text, each with the
/// last update of it.  What fails is realized again from here.
///
/// Threads: all operations from any thread.
class PendingLogicalSwitches {
 public:
  using Update = orlane::zem::covedb::MonitorUpdateMsg;

  void AddPendingLs(const std::string& uuid, Update update);
  void RemovePendingLs(const std::string& uuid);
  std::vector<std::string> GetPendingLsKeys();
  std::map<std::string, Update> Copy();
  void ClearPendingLs();
  size_t size();

 private:
  Synchronizable lock_;  // guards updates_
  std::map<std::string, Update> updates_;
};

}  // namespace zem::zema
