#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "app/zema/covedb/covedb_handler.h"
#include "app/zema/lswitch/logical_switch_context.h"
#include "app/zema/proxy/lum_handler.h"
#include "app/zema/state/host_config_state.h"
#include "app/zema/state/realization_options.h"
#include "app/zema/workers/worker_table.h"
#include "bench/logical-switches/bare_client.h"
#include "covedbclient/covedb_client.h"
#include "framework/node/host_identity.h"
#include "platform/provider/provider.h"
#include "sim/store/store_daemon.h"

namespace zem::bench {

/// The agent's part of the road (store client, store handler, workers, management proxy) and the store that
/// feeds it. The calls to the proxy are recorded, so that they can be replayed without the agent.
class Road final : public zema::ZoneSwitchKinds, public zema::VifStateRealizer {
 public:
  using Instant = std::chrono::steady_clock::time_point;

  /// Throws when a part does not start.
  explicit Road(const zema::LumSettings& settings);
  ~Road() override;

  // The benchmark has no zone of the host's own kind and no VIF.
  bool IsKln(const std::string&) override { return false; }
  void RemoveVif(const std::string&) override {}
  bool ProcessVif(const std::string&) override { return false; }

  void Change(const orlane::zem::covedb::ModifyRequestMsg& request);
  /// Starts watching the store.
  void Connect();
  /// Waits until the store holds the processed barrier; throws after a minute.
  Instant WaitForBarrier(uint64_t barrier);

  /// Seconds that a store client needs to read everything when it only counts; throws after a minute.
  double ReadAlone();

  /// The calls to the proxy since the last invocation, and the time of the first one.
  std::vector<Call> TakeCalls(Instant* first);

  /// Number of switches in one command.
  void SetApplyMax(int most);

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
  HostIdentity identity_;
  zema::OptionsStore options_;
  zema::HostConfigState state_;
  std::shared_ptr<zema::LogicalSwitchContext> context_;
};

}  // namespace zem::bench
