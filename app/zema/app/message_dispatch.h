#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "app/zema/app/manager_requests.h"
#include "app/zema/workers/worker_table.h"
#include "platform/timeline/operation.h"

namespace orlane::zem::switching {
class VifMsg;
}

namespace zem::zema {

/// Parses each message of the manager, obtains its task and queues the task on its worker; the receive
/// callback does no more than that.
///
/// Threads: the receive callback's.
class MessageDispatch {
 public:
  /// All outlive the dispatcher; `sender` goes into the origin of each request.
  MessageDispatch(MpaMessageSender& sender, WorkerTable& workers, std::shared_ptr<ManagerRequests> requests);

  /// `type` is the full name of the message, `header` the bus header's bytes.
  void ProcessReceiveMessages(const std::string& message_key, const std::string& type,
                              std::string_view payload, const std::string& correlation_id,
                              const std::string& reply_to, const std::string& header = {});

 private:
  struct Incoming {
    const std::string& key;
    std::string_view payload;
    RequestOrigin origin;
  };
  struct Row {
    std::string_view type;
    void (MessageDispatch::*take)(const Incoming&);
    /// The worker that runs the task; empty when the message makes no task.
    std::optional<Worker> worker;
  };
  static const Row kRows[];

  /// Null when no timeline is kept of such requests.
  static timeline::OperationPtr BeginRefused(const Row& row, const Incoming& message);
  void TakeLogicalSwitch(const Incoming& message);
  void TakeLogicalSwitchBulk(const Incoming& message);
  void TakeVif(const Incoming& message);
  void TakeHostConfig(const Incoming& message);
  void TakeMaintenanceMode(const Incoming& message);
  void TakeChecksum(const Incoming& message);
  void TakeHostProfile(const Incoming& message);
  void RefuseMigrationToKln(const Incoming& message);
  void TakeVtepRecovery(const Incoming& message);
  void TakeVtepAdminState(const Incoming& message);
  void TakeVtepIpSync(const Incoming& message);

  void TakeParsedVif(const orlane::zem::switching::VifMsg& message);
  void TakeVifResponse(const orlane::zem::switching::VifMsg& message);
  void TakeVifRequest(const orlane::zem::switching::VifMsg& message);

  MpaMessageSender& sender_;
  WorkerTable& workers_;
  const std::shared_ptr<ManagerRequests> requests_;
};

/// The content of a manager's response about a VIF.
std::unique_ptr<PortAttached> PortAttachedOf(const orlane::zem::switching::VifAttachmentMsg& vif);

}  // namespace zem::zema
