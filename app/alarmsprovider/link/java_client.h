#pragma once

#include <optional>

#include "app/alarmsprovider/link/client.h"
#include "proto/monitoring/monitoring_services.rpc.h"

namespace zem::Tarvik {

/// A client that serves requests itself, over the connection that it has opened to the agent.
class JavaClient final : public Client {
 public:
  using Stub = orlane::zem::monitoring::MonitoringClientLibraryService::Stub;

  explicit JavaClient(std::optional<Stub> stub);

  void Sync(std::shared_ptr<SyncCtx> context) override;
  void FullSync(std::shared_ptr<FullSyncCtx> context) override;
  bool IsClosed() const override { return false; }

 private:
  const std::optional<Stub> stub_;
};

}  // namespace zem::Tarvik
