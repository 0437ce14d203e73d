#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

#include "app/ctxteng/handler/client_set.h"

namespace orlane::zem::covedb {
class TypedObjectMsg;
}
namespace zem::rpc {
class Status;
}

namespace Ctxt {

/// The engine's monitors of the local store.  All of them share one module id, and with it one callback,
/// which gives each update to the client that it concerns; those for a client that is not active are dropped
/// and read from the store when it becomes active.
///
/// The store ends what it sends at the beginning of a connection with a barrier, of which a module only hears
/// if something was for it.  Whether nothing is, is therefore asked.
///
/// Threads: `Configure` once, by the thread that starts the engine; `SetActive` from any thread; the updates
/// on the store client's.
class StoreMonitors : public std::enable_shared_from_this<StoreMonitors> {
 public:
  using Update = orlane::zem::covedb::MonitorUpdateMsg;

  explicit StoreMonitors(ClientSet clients) : clients_(std::move(clients)) {}

  /// Watches what the clients of the bitmap need.  Throws CtxtCoveDbMonitorError.
  void Configure(uint32_t client_ids, const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store);
  /// The clients whose updates are delivered from now on.
  void SetActive(uint32_t active);

 private:
  struct Question;

  void Take(const Update& update);
  // From here to TakeRuleSection: with the mutex.
  void Dispatch(const Update& update);
  void SecurityToggleCallback(const Update& update);
  void TakeGlobalConfig(const Update& update);
  void TakeRule(const Update& update);
  void TakeRuleSection(const Update& update);
  void TakeChannel(bool up);
  void TakeBarrier();
  void Ask(int tries);
  void TakeObjects(const Question& question, const std::list<orlane::zem::covedb::TypedObjectMsg>& objects,
                   const zem::rpc::Status& status);
  // With the mutex.
  void DispatchObjects(const std::list<orlane::zem::covedb::TypedObjectMsg>& objects);
  // The updates of a client; null, and noted, when it is not active.  With the mutex.
  IStoreUpdates* UpdatesOf(uint32_t bit, const std::shared_ptr<IStoreUpdates>& updates);
  // With the mutex.
  void TellClients(void (IStoreUpdates::*what)());

  const ClientSet clients_;
  std::weak_ptr<zem::covedb::CoveDbClientInterface> store_;
  std::vector<int> types_;

  // Guards what follows, and is held while the clients are told, which hand over and return: the store's
  // answers come on other threads than its updates, and an old value may not overtake a newer one.  Never
  // held over a call of the store.
  std::mutex mutex_;
  uint32_t active_ = 0;
  bool channel_up_ = false;
  bool replaying_ = false;       // a connection's objects are on their way
  uint64_t connections_ = 0;     // to the store
  uint64_t updates_ = 0;         // ever
  uint64_t updates_before_ = 0;  // when the connection began
  uint32_t dropped_ = 0;         // clients for which an update came too early
  bool gave_up_ = false;         // reading what was dropped; the next barrier begins anew
};

}  // namespace Ctxt
