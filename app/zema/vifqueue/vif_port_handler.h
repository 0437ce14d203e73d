#pragma once

#include <memory>
#include <optional>

#include "app/zema/manager/zem_manager.h"
#include "app/zema/vif/prior_attachments.h"
#include "app/zema/vif/vif_context.h"
#include "app/zema/vif/vifs_in_process.h"
#include "app/zema/vifqueue/vif_handler.h"

namespace zem::zema {

class HealthRecord;
class MigrationRecord;
class OptionsStore;
class ResyncState;

/// Serves the operations on the ports of VIFs, one at a time on each VIF, in the order of their arrival.
class VifPortHandler final : public VifHandler {
 public:
  /// What decides whether an operation is carried out, and who is informed of it.  All outlive the handler.
  struct Surroundings {
    /// Takes the outcome of a restoration to the manager.
    VifSender& sender;
    MigrationRecord& migration;
    ResyncState& resync;
    HealthRecord& health;
    OptionsStore& options;
  };
  VifPortHandler(std::shared_ptr<VifContext> context, Surroundings around);
  ~VifPortHandler() override;

  void DoVifPortOperation(VifRequest& request, Thread& waiter) override;
  void Arrived(VifRequest& request) override;
  void HostCame() override;
  void EndWaits() override;

 private:
  using RestoreAnswer = std::optional<VifSender::RestoreResponse>;

  bool Defer(VifRequest& request);
  bool CheckHealth(VifRequest& request);
  bool AwaitTurn(VifRequest& request);
  void Operate(VifRequest& request, Thread& waiter, RestoreAnswer* answer);
  void NoteForResync(const VifRequest& request);
  void Dispatch(VifRequest& request, Thread& waiter, RestoreAnswer* answer);
  void Attach(VifRequest& request, Thread& waiter);
  void ManagerDetach(VifRequest& request);

  const std::shared_ptr<VifContext> context_;
  const Surroundings around_;
  const std::shared_ptr<VifsInProcess> in_process_ = std::make_shared<VifsInProcess>();
  PriorAttachments prior_;
};

}  // namespace zem::zema
