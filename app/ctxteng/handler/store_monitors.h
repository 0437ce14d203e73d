#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "app/ctxteng/handler/client_set.h"

namespace Ctxt {

/// The engine's monitors of the local store.  All of them share one module id, and with it one callback,
/// which gives each update to the client that it concerns; those for a client that is not active are dropped.
///
/// Threads: `Configure` once, by the thread that starts the engine; the updates on the store client's.
class StoreMonitors : public std::enable_shared_from_this<StoreMonitors> {
 public:
  using Update = orlane::zem::covedb::MonitorUpdateMsg;

  explicit StoreMonitors(ClientSet clients) : clients_(std::move(clients)) {}

  /// Watches what the clients of the bitmap need.  Throws CtxtCoveDbMonitorError.
  void Configure(uint32_t client_ids, zem::covedb::CoveDbClientInterface& store);
  /// The clients whose updates are delivered from now on.
  void SetActive(uint32_t active) { active_ = active; }

  /// An update of the feature toggles.
  void SecurityToggleCallback(const Update& update);

 private:
  void Take(const Update& update);
  void TakeGlobalConfig(const Update& update);
  void TakeRule(const Update& update);
  void TakeRuleSection(const Update& update);
  bool Active(uint32_t bit) const { return (active_ & bit) != 0; }

  const ClientSet clients_;
  std::atomic<uint32_t> active_{0};
};

}  // namespace Ctxt
