#pragma once

#include <string>

#include "app/zema/manager/port_attached.h"
#include "app/zema/ports/port_ops_manager.h"

namespace zem {
class Thread;
}  // namespace zem

namespace zem::zema {

class PriorAttachments;
struct VifContext;
struct VifRequest;

/// One detach of a VIF: reports it to the manager and takes the VIF off its port.  When the detach undoes a
/// move, the VIF gets its previous port back.
///
/// Threads: the one that serves the request, which holds the monitor of `waiter`.
class DetachOperation {
 public:
  DetachOperation(VifContext& context, PriorAttachments& prior, VifRequest& request, Thread& waiter);

  /// Stores the outcome in the request.
  void Run();

 private:
  void NoteOperation();
  void ClearPort();
  void ClearNamedPort();
  void ClearWhereverItIs();
  void CleanUpPriorAttachedPort();
  [[nodiscard]] bool ClearForUndo(const PortAttached& back);
  void Clear(const std::string& zone, const std::string& port, bool force);

  VifContext& context_;
  PriorAttachments& prior_;
  VifRequest& request_;
  Thread& waiter_;
  PortAttached reply_;
  PortLocation at_;
};

}  // namespace zem::zema
