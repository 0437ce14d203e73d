#pragma once

#include <optional>
#include <string>

#include "app/zema/manager/port_attached.h"
#include "app/zema/ports/port_location.h"
#include "app/zema/vif/site_config.h"
#include "platform/core/clock.h"

namespace zem {
class Thread;
}  // namespace zem

namespace zem::zema {

class PriorAttachments;
struct VifContext;
struct VifRequest;

/// One attach of a VIF: reports it to the manager, creates the port that the manager answers with, and clears
/// the port that the VIF had before.  When the manager cannot be reached, the VIF gets its previous port
/// back.
///
/// Threads: the one that serves the request, which holds the monitor of `waiter`.
class AttachOperation {
 public:
  AttachOperation(VifContext& context, PriorAttachments& prior, VifRequest& request, Thread& waiter);

  /// Stores the outcome in the request.  With `return_vif` the request's result text becomes the port's uuid.
  void DoMpVifAttachRpc(bool return_vif);

 private:
  void Attach(bool return_vif);
  void TellManager();
  std::string PortHint();
  bool LeavePriorPort();
  bool HandlePriorAttachedPort();
  void RollBack();
  bool TieSecurity();
  void ForgetPendingOperation();
  void MakePort(bool return_vif);
  void AfterManagerError(bool return_vif);

  VifContext& context_;
  PriorAttachments& prior_;
  VifRequest& request_;
  Thread& waiter_;
  const TimePoint begun_;
  PortAttached reply_;
  std::optional<PortLocation> security_port_;
  std::optional<PriorSiteConfig> prior_config_;
};

}  // namespace zem::zema
