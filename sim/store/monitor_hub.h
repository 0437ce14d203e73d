#pragma once

#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/rpc/status.h"
#include "proto/covedb/covedb.pb.h"
#include "sim/store/object_store.h"

namespace zem::sim {

/// Where a stream's answers go.
class MonitorSink {
 public:
  virtual ~MonitorSink() = default;
  /// False when it cannot be taken now; the stream then waits for `MonitorHub::Drain`.
  virtual bool Write(const orlane::zem::covedb::MonitorResponseMsg& response) = 0;
  virtual void Close(const rpc::Status& status) = 0;
};

/// What is told of one stream.
struct MonitorInfo {
  std::string monitor_id;
  std::string client_id;
  uint16_t vdb_id;
  std::vector<ObjectType> types;
  uint64_t updates;
  size_t behind_bytes;
};

/// The streams that watch objects.
///
/// A new stream, or a type added to one, is first sent the objects that match, as sets; later each batch's
/// changes. Both go in pieces of at most 500 updates of which the last carries the barrier mark.  A stream
/// that is more than 8 MiB behind ends with RESYNC_REQUIRED.
///
/// Threads: none of its own; the owner guards it.
class MonitorHub {
 public:
  static constexpr int kMaxUpdates = 500;
  static constexpr size_t kMaxPieceBytes = size_t{1} << 20;
  static constexpr size_t kMaxBehindBytes = size_t{8} << 20;

  MonitorHub(const ObjectRegistry& registry, const ObjectStore& objects);

  /// Starts a stream; `sink` gets all that follows, its end included.  An id that the same client has in use
  /// goes over to the new stream, and the old one ends with CANCELLED; one of another client:
  /// INVALID_ARGUMENT.  VDB_GONE for an unknown vdb.
  void Open(const std::string& client_id, const orlane::zem::covedb::MonitorRequestMsg& request,
            std::shared_ptr<MonitorSink> sink);

  /// All of it or, with a status that says why, nothing.
  rpc::Status Configure(const std::string& client_id,
                        const orlane::zem::covedb::ConfigureMonitorRequestMsg& request,
                        orlane::zem::covedb::ConfigureMonitorResponseMsg* response);

  /// Tells the streams of one batch.
  void Publish(const std::vector<ObjectChange>& changes);

  /// The mark alone, to the streams of `vdb_id`; gives how many there are.
  size_t SendBarrier(uint16_t vdb_id);

  /// The client's side has ended.
  void Ended(const MonitorSink& sink);
  /// The sink takes answers again.
  void Drain(const MonitorSink& sink);

  /// Ends the streams of a vdb, or those of a monitor id (all for an empty one); gives how many there were.
  size_t EndVDb(uint16_t vdb_id, const rpc::Status& status);
  size_t EndMonitor(const std::string& monitor_id, const rpc::Status& status);

  std::vector<MonitorInfo> Streams() const;

  /// The values of the next `count` updates are replaced by bytes that are no message.
  void SetGarbage(int count) { garbage_ = count; }

 private:
  using Updates = std::vector<orlane::zem::covedb::MonitorUpdateMsg>;
  struct Stream {
    std::string monitor_id;
    std::string client_id;
    uint16_t vdb_id = 0;
    std::map<ObjectType, orlane::zem::covedb::StatementMsg> statements;
    std::shared_ptr<MonitorSink> sink;
    std::deque<orlane::zem::covedb::MonitorResponseMsg> behind;
    size_t behind_bytes = 0;
    uint64_t updates = 0;
    bool lost = false;  // ended while it was being written to
  };
  using StreamList = std::list<Stream>;

  StreamList::iterator FindMonitor(const std::string& monitor_id);
  StreamList::iterator FindSink(const MonitorSink& sink);
  StreamList::iterator End(StreamList::iterator stream, const rpc::Status& status);
  void Replay(const Stream& stream, const orlane::zem::covedb::StatementMsg& statement,
              Updates& updates) const;
  void Send(Stream& stream, Updates& updates, bool mark_alone);
  void Write(Stream& stream, orlane::zem::covedb::MonitorResponseMsg response);
  void EndLost();
  static void ShowMonitored(const Stream& stream, orlane::zem::covedb::ConfigureMonitorResponseMsg* response);

  const ObjectRegistry& registry_;
  const ObjectStore& objects_;
  StreamList streams_;
  int garbage_ = 0;
};

/// Bytes that no protobuf message begins with.
extern const char kGarbage[];

}  // namespace zem::sim
