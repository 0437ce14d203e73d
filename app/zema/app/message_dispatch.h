#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "app/zema/app/later_parts.h"
#include "app/zema/manager/port_attached.h"
#include "app/zema/workers/worker_table.h"

namespace orlane::zem::switching {
class ChecksumMsg;
class HostConfigAckMsg;
class HostProfileMsg;
class LogicalSwitchMsg;
class VifMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

/// Makes the task of each message of the manager and puts it on its worker; the receive callback does no
/// more.
///
/// Threads: the receive callback's.
class MessageDispatch {
 public:
  using HostConfigMsg = orlane::zem::switching::HostConfigMsg;

  /// The classes behind the tasks.  A null task is not queued.
  struct Settings {
    MpaMessageSender* sender = nullptr;
    WorkerTable* workers = nullptr;
    std::function<std::unique_ptr<Runnable>(const RequestOrigin&, HostConfigMsg)> host_config;
    std::function<std::unique_ptr<Runnable>(const RequestOrigin&,
                                            const orlane::zem::switching::LogicalSwitchMsg&)>
        logical_switch;
    std::function<std::unique_ptr<Runnable>(const RequestOrigin&, std::string bytes)>
        logical_switch_full_sync;
    std::function<std::unique_ptr<Runnable>(const RequestOrigin&, const orlane::zem::switching::ChecksumMsg&)>
        restore;
    std::function<std::unique_ptr<Runnable>(const RequestOrigin&,
                                            const orlane::zem::switching::HostProfileMsg&)>
        host_profile;
    /// Leaves without waiting for the manager.
    std::function<void(const std::string& reply_to, const orlane::zem::switching::HostConfigAckMsg&)>
        send_host_config_ack;
    /// As the ack; answers a profile that cannot be taken.
    std::function<void(const RequestOrigin&, const std::string& error)> refuse_host_profile;
    /// As the ack; answers a request whose queue is full.
    std::function<void(const RequestOrigin&, std::string_view type, std::string payload,
                       const std::string& reason)>
        refuse;
    /// The answer to a call that waits for the manager.
    std::function<void(const std::string& rpc_id, std::unique_ptr<PortAttached>)> vif_result;
    LaterParts later;
  };

  explicit MessageDispatch(Settings settings);

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
    /// Whose queue the task goes to, where one is made.
    std::optional<Worker> worker;
  };
  static const Row kRows[];

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

  const Settings settings_;
};

/// What a response of the manager about a VIF says.
std::unique_ptr<PortAttached> PortAttachedOf(const orlane::zem::switching::VifAttachmentMsg& vif);

}  // namespace zem::zema
