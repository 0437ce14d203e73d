#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>

#include "platform/metrics/queue_gauge.h"
#include "proto/covedb/covedb.pb.h"

namespace zem::metrics {
class Gauge;
}

namespace zem::covedb {

using orlane::zem::covedb::ModifyMsg;
using orlane::zem::covedb::ModifyRequestMsg;
using orlane::zem::covedb::ObjectType;

/// The type that a change concerns; OBJECT_TYPE_NONE for an empty one.
ObjectType ObjectTypeOf(const ModifyMsg& change);

/// Changes that the store does not have yet, in the order in which they were asked for.
///
/// At most one batch is under way: the first entry, while its `sent` is set.  A batch that comes back stays
/// the first entry and takes with it, the next time, all that queued behind it.  The request list is shared
/// with the call that carries it, so a batch is never copied; it is changed only while it is not under way.
///
/// Without limit, since a change that was dropped would be missing from the store for good.  While the store
/// is away nothing comes from it that would have to be answered, so what waits is what the manager's own
/// requests lead to.
///
/// Threads: none of its own; the owner guards it.
class ModifyQueue {
 public:
  using Requests = std::list<ModifyRequestMsg>;
  using Callbacks = std::list<std::function<void()>>;

  struct Entry {
    std::shared_ptr<Requests> requests;
    Callbacks callbacks;
    bool sent = false;
    size_t appended = 1;  ///< how many entries it is made of
  };

  /// `count` always shows the number of entries; it has to outlive the queue.
  explicit ModifyQueue(metrics::Gauge& count);

  void Append(Requests requests, std::function<void()> done);

  /// Merges all entries into the first one and marks it as sent.  Null when there is none or one is under
  /// way.
  Entry* TakeBatch();

  /// The batch under way; null when the queue is empty.
  Entry* Front();
  void PopFront();

  /// A virtual database ceases: changes that are not under way lose it as their target, and those left
  /// without target, or with it as their source, are dropped.
  void Purge(uint16_t vdb_id);

  bool empty() const { return pending_modification_requests_.empty(); }
  size_t size() const { return pending_modification_requests_.size(); }

 private:
  void Show();

  std::list<Entry> pending_modification_requests_;
  metrics::Gauge& count_;
  QueueGauge gauge_{"storeModifications"};
};

/// Removes the changes for which `drop` holds (it may edit those that stay), then the requests without
/// changes. The order stays.
void RemoveChanges(ModifyQueue::Requests& requests, const std::function<bool(ModifyMsg&)>& drop);

}  // namespace zem::covedb
