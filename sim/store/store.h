#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/rpc/status.h"
#include "proto/covedb/covedb.pb.h"
#include "sim/store/monitor_hub.h"
#include "sim/store/object_registry.h"
#include "sim/store/object_store.h"

namespace zem::sim {

/// The streams of a store: what their transport reports, and what a fault does to them.
///
/// Threads: all operations from any thread.
class StoreStreams {
 public:
  StoreStreams(std::mutex& mutex, MonitorHub& monitors) : mutex_(mutex), monitors_(monitors) {}

  void Ended(const MonitorSink& sink);
  void Writable(const MonitorSink& sink);

  size_t SendBarrier(uint16_t vdb_id);
  /// Ends the streams of a monitor id; an empty id ends all.
  size_t End(const std::string& monitor_id, const rpc::Status& status);
  std::vector<MonitorInfo> List() const;
  /// The next updates (negative: all) carry bytes that are no message.
  void SetGarbage(int count);

 private:
  std::mutex& mutex_;  // the store's
  MonitorHub& monitors_;
};

/// The store behind its calls and commands: the objects, and the streams that receive each change.
///
/// Threads: all operations from any thread.  `registry` has to outlive it.
class Store {
 public:
  explicit Store(const ObjectRegistry& registry);

  /// Makes all changes of the batch, or none, and sends them to the streams as one run of updates.
  rpc::Status Modify(const std::vector<orlane::zem::covedb::ModifyRequestMsg>& batch);
  rpc::Status Get(const orlane::zem::covedb::GetRequestMsg& request,
                  orlane::zem::covedb::GetResponseMsg* response) const;
  rpc::Status Query(const orlane::zem::covedb::QueryRequestMsg& request,
                    orlane::zem::covedb::QueryResponseMsg* response) const;

  rpc::Status CreateVDb(const std::string& name, uint16_t* vdb_id);
  /// Deletes the vdb; its streams end with VDB_GONE.
  rpc::Status DeleteVDb(const std::string& name);
  std::vector<std::pair<uint16_t, std::string>> VDbs() const;

  void Monitor(const std::string& client_id, const orlane::zem::covedb::MonitorRequestMsg& request,
               std::shared_ptr<MonitorSink> sink);
  rpc::Status ConfigureMonitor(const std::string& client_id,
                               const orlane::zem::covedb::ConfigureMonitorRequestMsg& request,
                               orlane::zem::covedb::ConfigureMonitorResponseMsg* response);
  /// The open streams.
  StoreStreams& streams() { return streams_; }

  struct TypeCount {
    uint16_t vdb_id;
    ObjectType type;
    size_t objects;
  };
  std::vector<TypeCount> Counts() const;

  /// Sets what the schema calls return and, with `last_type`, which types exist.
  void SetSchema(std::string version, ObjectType last_type);
  std::string SchemaVersion() const;
  std::string Schema() const;

 private:
  mutable std::mutex mutex_;  // guards all below
  const ObjectRegistry& registry_;
  ObjectStore objects_;
  MonitorHub monitors_;
  StoreStreams streams_{mutex_, monitors_};
  std::string schema_version_ = "3.2.1";
};

}  // namespace zem::sim
