#pragma once

#include <boost/enable_shared_from_this.hpp>
#include <memory>

#include "proto/monitoring/monitoring.pb.h"

namespace zem::Tarvik {

class FullSyncCtx;
class SyncCtx;

/// A connected alarm client.
///
/// Threads: all operations from any thread; they send and do not wait for the client.
class Client : public boost::enable_shared_from_this<Client> {
 public:
  virtual void Start() {}
  /// Asks for one instance.  The context is completed by the answer.
  virtual void Sync(std::shared_ptr<SyncCtx> context) = 0;
  /// Asks the client to report all instances.
  virtual void FullSync(std::shared_ptr<FullSyncCtx> context) = 0;
  /// True when the client is gone, although its entry may still be there.
  virtual bool IsClosed() const = 0;
  virtual ~Client() = default;
};

/// The request that a client gets for a context.
orlane::zem::monitoring::MonitoringSyncRequestMsg SyncRequestOf(const SyncCtx& context);

}  // namespace zem::Tarvik
