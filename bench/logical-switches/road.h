#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "app/zema/covedb/covedb_handler.h"
#include "app/zema/lswitch/logical_switch_context.h"
#include "app/zema/proxy/lum_handler.h"
#include "app/zema/workers/worker_table.h"
#include "bench/logical-switches/bare_client.h"
#include "covedbclient/covedb_client.h"
#include "platform/provider/provider.h"
#include "sim/store/store_daemon.h"

namespace zem::bench {

/// The agent's part of the road: store client, store handler, workers, management proxy; and the store it
/// hangs on. The calls to the proxy are kept, so that they can be sent again without it.
class Road {
 public:
  using Instant = std::chrono::steady_clock::time_point;

  /// Throws when something does not start.
  explicit Road(const zema::LumSettings& settings);
  ~Road();

  void Change(const orlane::zem::covedb::ModifyRequestMsg& request);
  /// From now on the store is watched.
  void Connect();
  /// Waits until the store holds the processed barrier; throws after a minute.
  Instant WaitForBarrier(uint64_t barrier);

  /// Seconds that a store client which only counts needs to read everything; throws after a minute.
  double ReadAlone();

  /// What went to the proxy since the last time, and when the first of it did.
  std::vector<Call> TakeCalls(Instant* first);

  /// Switches in one command.
  void SetApplyMax(int most) { apply_max_ = most; }

 private:
  class KeepingLum;

  std::unique_ptr<KeepingLum> lum_;
  AsioZemProvider agent_;
  AsioZemProvider store_provider_;
  const sim::ObjectRegistry registry_;
  std::unique_ptr<sim::StoreDaemon> daemon_;
  std::shared_ptr<covedb::CoveDbClient> client_;
  zema::WorkerTable workers_;
  std::shared_ptr<zema::CoveDbHandler> handler_;
  std::shared_ptr<zema::LogicalSwitchContext> context_;
  std::atomic<int> apply_max_{1000};
};

}  // namespace zem::bench
