#pragma once

#include <memory>
#include <vector>

#include "app/zemda/records/store_records.h"

namespace orlane::zem {
namespace covedb {
class VmConfigMsg;
}
namespace ida {
class IdaMsg;
}
}  // namespace orlane::zem

namespace ZemDa {

/// The store's records of VMs, which follow the messages that the manager gets.  Fields of other writers
/// survive.
///
/// Threads: the sender's.
class VmConfigMsgHandler {
 public:
  using VmConfigMsg = orlane::zem::covedb::VmConfigMsg;
  using IdaMsg = orlane::zem::ida::IdaMsg;

  /// `interruption` may be null, and else outlives this.
  VmConfigMsgHandler(std::shared_ptr<CoveDBConnectionHandler> store, Interruption* interruption);

  /// Both are refused, with a log line, for a record without its id.
  void Modify(const VmConfigMsg& vm);
  void Delete(const VmConfigMsg& vm);
  /// Reads the record of `vm`'s id, or all without an id, into `found`.  False when the store does not say.
  bool Get(const VmConfigMsg& vm, std::vector<VmConfigMsg>* found);

  /// Brings the records in step with a message that was sent.
  void process(const IdaMsg& message);

 private:
  struct WriteTexts;
  static const WriteTexts kModify;
  static const WriteTexts kDelete;

  void Write(const WriteTexts& texts, const VmConfigMsg& vm);
  void ProcessUpdate(const IdaMsg& message);
  void ProcessFullSync(const IdaMsg& message);

  StoreRecords records_;
};

}  // namespace ZemDa
