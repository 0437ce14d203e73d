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

/// Receives the answers of a stream.
class MonitorSink {
 public:
  virtual ~MonitorSink() = default;
  /// Returns false when it cannot accept answers now; the stream then waits for `MonitorHub::Drain`.
  virtual bool Write(const orlane::zem::covedb::MonitorResponseMsg& response) = 0;
  virtual void Close(const rpc::Status& status) = 0;
};

/// The description of one stream.
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
/// A new stream, or a type added to one, is first sent the objects that match, as sets; after that, the
/// changes of each batch.  Both are sent in pieces of at most 500 updates, of which the last carries the
/// barrier mark.  A stream that is more than 8 MiB behind ends with RESYNC_REQUIRED.
///
/// Threads: not thread-safe; the owner's lock guards it.
class MonitorHub {
 public:
  static constexpr int kMaxUpdates = 500;
  static constexpr size_t kMaxPieceBytes = size_t{1} << 20;
  static constexpr size_t kMaxBehindBytes = size_t{8} << 20;

  MonitorHub(const ObjectRegistry& registry, const ObjectStore& objects);

  /// Starts a stream; `sink` receives everything that follows, including its end.  An id that the same client
  /// already uses passes to the new stream, and the old one ends with CANCELLED; an id of another client is
  /// refused with INVALID_ARGUMENT, an unknown vdb with VDB_GONE.
  void Open(const std::string& client_id, const orlane::zem::covedb::MonitorRequestMsg& request,
            std::shared_ptr<MonitorSink> sink);

  /// Changes the stream completely, or not at all; then the status says why.
  rpc::Status Configure(const std::string& client_id,
                        const orlane::zem::covedb::ConfigureMonitorRequestMsg& request,
                        orlane::zem::covedb::ConfigureMonitorResponseMsg* response);

  /// Sends the changes of one batch to the streams.
  void Publish(const std::vector<ObjectChange>& changes);

  /// Sends only the barrier mark to the streams of `vdb_id`; returns their number.
  size_t SendBarrier(uint16_t vdb_id);

  /// The client has ended the stream.
  void Ended(const MonitorSink& sink);
  /// The sink accepts answers again.
  void Drain(const MonitorSink& sink);

  /// Ends the streams of a vdb, or those of a monitor id (an empty one: all); returns their number.
  size_t EndVDb(uint16_t vdb_id, const rpc::Status& status);
  size_t EndMonitor(const std::string& monitor_id, const rpc::Status& status);

  std::vector<MonitorInfo> Streams() const;

  /// Replaces the values of the next `count` updates by bytes that no message can begin with.
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
    bool lost = false;  // ended during a write to its sink
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

/// Bytes with which no protobuf message begins.
extern const char kGarbage[];

}  // namespace zem::sim
