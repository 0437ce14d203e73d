#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <string>

namespace orlane::zem::covedb {
class ModifyRequestMsg;
class MonitorStatementMsg;
class MonitorStatementUpdateMsg;
class MonitorUpdateMsg;
class ObjectRequestMsg;
class StatementMsg;
class TypedObjectMsg;
class VDbMsg;
}  // namespace orlane::zem::covedb

namespace zem::rpc {
class Status;
}

namespace zem::covedb {

using orlane::zem::covedb::ModifyRequestMsg;
using orlane::zem::covedb::MonitorStatementMsg;
using orlane::zem::covedb::MonitorStatementUpdateMsg;
using orlane::zem::covedb::MonitorUpdateMsg;
using orlane::zem::covedb::ObjectRequestMsg;
using orlane::zem::covedb::StatementMsg;
using orlane::zem::covedb::TypedObjectMsg;
using orlane::zem::covedb::VDbMsg;

/// The virtual database that is there from the start.
constexpr uint16_t kDefaultVDb = 1;

using UpdateCallback = std::function<void(const MonitorUpdateMsg&)>;
using BarrierCallback = std::function<void()>;
using ChannelStatusCallback = std::function<void(bool up)>;
using ObjectsCallback = std::function<void(const std::list<TypedObjectMsg>&, const rpc::Status&)>;

/// The local store as the applications see it.
///
/// Threads: all operations from any thread, and from inside every callback.  Callbacks run on the provider's
/// threads and must not block; update, barrier and channel-status callbacks run with the client's locks held.
/// Errors: reads and virtual database calls give false, and no callback runs, while the store is away; they
/// are not tried again.  Writes wait.
class CoveDbClientInterface {
 public:
  virtual ~CoveDbClientInterface() = default;

  /// Enters a module's callbacks for a virtual database.  False when the module has one of the two already
  /// (it stays), or for an unknown `vdb_id`.
  virtual bool RegisterMonitorCallback(uint32_t module_id, UpdateCallback update, BarrierCallback barrier,
                                       uint16_t vdb_id) = 0;

  /// `callback` runs at once in the caller's stack with whether the store can be reached, and on each change.
  /// It may get the same value twice in a row.
  virtual void AddChannelStatusCallback(ChannelStatusCallback callback) = 0;

  /// Starts to watch a virtual database.  False when it is watched.
  virtual bool AddMonitorSession(uint16_t vdb_id) = 0;

  /// Forgets all that modules entered for a virtual database.  False when it is not watched.
  virtual bool RemoveMonitorSession(uint16_t vdb_id) = 0;

  /// Lets monitors start, now and after each reconnect.  False while the store is away: nothing is changed
  /// then.
  virtual bool EnableMonitorSessionCreation() = 0;

  /// Changes what a module watches; the removals go first.  The first refusal ends the call with false; what
  /// was done until then stays.  Modules that watch one type have to give the same statement (see
  /// statements.h).
  virtual bool ConfigureMonitor(const std::list<MonitorStatementMsg>& to_add,
                                const std::list<MonitorStatementMsg>& to_remove, uint32_t module_id,
                                uint16_t vdb_id) = 0;

  /// Changes the conditions of statements: all of them, or, with false, none.
  virtual bool UpdateMonitor(const std::list<MonitorStatementUpdateMsg>& updates, uint16_t vdb_id) = 0;

  /// One call at a time: false also while the last one is unanswered.
  virtual bool GetServerSchemaVersion(
      std::function<void(const std::string& version, const rpc::Status&)> callback) = 0;
  virtual bool GetServerSchema(
      std::function<void(const std::string& schema, const std::string& version, const rpc::Status&)>
          callback) = 0;

  /// Queues changes; they reach the store at least once, in the order of the calls.  `done` (may be empty)
  /// runs when the store has them all.
  virtual void Modify(std::list<ModifyRequestMsg> requests, std::function<void()> done) = 0;

  /// A `vdb_id` of 0 leaves the choice to the store.
  virtual bool Get(const std::list<ObjectRequestMsg>& requests, ObjectsCallback callback,
                   uint16_t vdb_id) = 0;
  virtual bool Query(const StatementMsg& statement, ObjectsCallback callback, uint16_t vdb_id) = 0;

  virtual bool CreateVDb(const std::string& name,
                         std::function<void(uint32_t vdb_id, const rpc::Status&)> callback) = 0;
  /// With a `vdb_id` other than 0, changes that wait for that database are dropped first.
  virtual bool DeleteVDb(const std::string& name, std::function<void(const rpc::Status&)> callback,
                         uint16_t vdb_id) = 0;
  /// An empty name asks for all.
  virtual bool GetVDbId(const std::string& name,
                        std::function<void(const std::list<VDbMsg>&, const rpc::Status&)> callback) = 0;

  virtual bool Echo(const std::string& text,
                    std::function<void(const std::string&, const rpc::Status&)> callback) = 0;

  /// Connects, and waits until the store was reached once.  Not from a provider thread.
  virtual void Start() = 0;
};

}  // namespace zem::covedb
