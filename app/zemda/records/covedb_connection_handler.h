#pragma once

#include <functional>
#include <list>
#include <memory>
#include <mutex>

#include "platform/core/long_mutex.h"

namespace orlane::zem::covedb {
class ModifyRequestMsg;
class ObjectRequestMsg;
class TypedObjectMsg;
}  // namespace orlane::zem::covedb
namespace zem::covedb {
class CoveDbClientInterface;
}
namespace zem::rpc {
class Status;
}

namespace ZemDa {

/// The agent's way to the local store.
///
/// Threads: all operations from any thread; callbacks run on the store client's.
class CoveDBConnectionHandler {
 public:
  using Objects = std::list<orlane::zem::covedb::TypedObjectMsg>;
  using ObjectsCallback = std::function<void(const Objects&, const zem::rpc::Status&)>;

  static const std::shared_ptr<CoveDBConnectionHandler>& GetInstance();

  /// Stays connected also while the store is away: writes wait in the store's client.
  void connect(std::shared_ptr<zem::covedb::CoveDbClientInterface> store);

  /// `done` (may be empty) runs when the store has the changes.  False, after a log line, before `connect`.
  bool modify(std::list<orlane::zem::covedb::ModifyRequestMsg> requests, std::function<void()> done);
  /// False, and no callback runs, before `connect` (after a log line) and while the store is away.
  bool get(const std::list<orlane::zem::covedb::ObjectRequestMsg>& requests, ObjectsCallback callback);

  /// Held over a read: the agent has one at a time.
  zem::LongMutex& read_mutex() { return read_mutex_; }

 private:
  std::shared_ptr<zem::covedb::CoveDbClientInterface> Store();

  zem::LongMutex read_mutex_;
  std::mutex mutex_;  // guards store_
  std::shared_ptr<zem::covedb::CoveDbClientInterface> store_;
};

}  // namespace ZemDa
