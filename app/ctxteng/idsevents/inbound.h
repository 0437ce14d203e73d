#pragma once

#include <memory>

namespace Ctxt {
struct CtxtMsg;
}

namespace IdsEvtEng {

class ManagerRoad;
class NodeRecords;

/// Passes on to the manager what other producers of alerts on this host send to the engine's applications.
///
/// Threads: on the channel's thread.
class Inbound {
 public:
  /// The references outlive the object.
  Inbound(ManagerRoad& manager, NodeRecords& nodes) : manager_(manager), nodes_(nodes) {}

  void OnEvents(const std::shared_ptr<Ctxt::CtxtMsg>& message);
  void OnPcaps(const std::shared_ptr<Ctxt::CtxtMsg>& message);

 private:
  ManagerRoad& manager_;
  NodeRecords& nodes_;
};

}  // namespace IdsEvtEng
