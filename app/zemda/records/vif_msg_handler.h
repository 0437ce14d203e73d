#pragma once

#include <memory>

#include "app/zemda/records/store_records.h"

namespace orlane::zem::covedb {
class DaVifMsg;
}

namespace ZemDa {

/// The store's records of logical port attachments.
///
/// Threads: the collector's.
class VifMsgHandler {
 public:
  using DaVifMsg = orlane::zem::covedb::DaVifMsg;

  /// `interruption` may be null, and else outlives this.
  VifMsgHandler(std::shared_ptr<CoveDBConnectionHandler> store, Interruption* interruption);

  /// Both are refused, with a log line, for a record without its id.
  void ModifyVif(const DaVifMsg& vif);
  void DeleteVif(const DaVifMsg& vif);
  /// Reads the record of `vif`'s id into `vif`; false when it is not there or the store does not say.
  bool GetVif(DaVifMsg* vif);

 private:
  StoreRecords records_;
};

}  // namespace ZemDa
