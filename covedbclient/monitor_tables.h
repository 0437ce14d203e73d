#pragma once

#include <boost/uuid/uuid.hpp>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "covedbclient/covedb_client_interface.h"
#include "proto/covedb/covedb.pb.h"

namespace zem::covedb {

using orlane::zem::covedb::ConfigureMonitorRequestMsg;
using orlane::zem::covedb::MonitorRequestMsg;
using orlane::zem::covedb::ObjectType;

/// What modules watch, per virtual database: the sessions, one statement per object type, the modules behind
/// each type, and their callbacks.  Outlives connections; knows nothing of them.
///
/// A refusal is logged with its tag.  Callbacks may come back and change the tables while an update is handed
/// out.
///
/// Threads: none of its own; the owner guards it.
class MonitorTables {
 public:
  using SessionId = boost::uuids::uuid;

  const std::map<uint16_t, SessionId>& sessions() const { return sessions_; }
  bool HasSession(uint16_t vdb_id) const { return sessions_.count(vdb_id) != 0; }
  /// Makes the session, or gives the one that is there a new id.
  SessionId RenewSession(uint16_t vdb_id);
  bool AddSession(uint16_t vdb_id);
  bool RemoveSession(uint16_t vdb_id);

  bool Register(uint32_t module_id, UpdateCallback update, BarrierCallback barrier, uint16_t vdb_id);

  /// Adds the changes for the store to `request`.  False at a refusal: the changes before it stay in the
  /// tables.
  bool Configure(const std::list<MonitorStatementMsg>& to_add,
                 const std::list<MonitorStatementMsg>& to_remove, uint32_t module_id, uint16_t vdb_id,
                 ConfigureMonitorRequestMsg& request);

  /// False with nothing changed; `request` is then of no use.
  bool Update(const std::list<MonitorStatementUpdateMsg>& updates, uint16_t vdb_id,
              ConfigureMonitorRequestMsg& request);

  /// Adds the statements of a virtual database to `request`; those of types for which `keep` does not hold
  /// are forgotten for good.
  void AddStatements(uint16_t vdb_id, const std::function<bool(ObjectType)>& keep,
                     MonitorRequestMsg& request);

  /// Hands an update to each module that watches its type.
  void NotifyModules(const MonitorUpdateMsg& update, uint16_t vdb_id);

  /// Calls the barrier callbacks of the modules that got an update since the last mark.
  void NotifyBarrier(uint16_t vdb_id);

 private:
  struct VDb {
    // Shared, so that a callback that removes itself stays alive until it returns.
    std::map<uint32_t, std::shared_ptr<const UpdateCallback>> update_callbacks;
    std::map<uint32_t, std::shared_ptr<const BarrierCallback>> barrier_callbacks;
    std::map<ObjectType, std::string> monitors;  // serialized statements
    std::map<ObjectType, std::set<uint32_t>> module_ids;
    std::set<uint32_t> modules_since_barrier;
  };

  bool CheckSession(uint16_t vdb_id) const;
  bool Remove(const MonitorStatementMsg& statement, uint32_t module_id, uint16_t vdb_id,
              ConfigureMonitorRequestMsg& request);
  bool Add(const MonitorStatementMsg& statement, uint32_t module_id, uint16_t vdb_id,
           ConfigureMonitorRequestMsg& request);
  VDb* Find(uint16_t vdb_id);

  std::map<uint16_t, SessionId> sessions_;
  std::map<uint16_t, VDb> vdbs_;
};

}  // namespace zem::covedb
