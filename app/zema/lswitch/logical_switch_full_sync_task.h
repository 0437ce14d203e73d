#pragma once

#include <memory>
#include <optional>
#include <string>

#include "app/zema/lswitch/logical_switch_context.h"
#include "app/zema/manager/mpa_message_task.h"
#include "proto/switching/logical_switch.pb.h"

namespace zem::zema {

/// The manager's own full sync: its bytes go to the host as they came.
///
/// From the object's making on, which is the message's arrival, the manager's updates of before are void, and
/// those that come behind it wait for its run.
class LogicalSwitchFullSyncTask final : public MpaMessageTask<orlane::zem::switching::LogicalSwitchBulkMsg> {
 public:
  /// `sender` may be null: nobody is answered then.
  LogicalSwitchFullSyncTask(std::shared_ptr<LogicalSwitchContext> context, MpaMessageSender* sender,
                            std::string correlation_id, std::string reply_to, std::string payload);

  void Run() override;

  /// Of the last run; empty when it succeeded.
  const std::string& error() const { return error_; }

 private:
  const std::shared_ptr<LogicalSwitchContext> context_;
  const std::string payload_;
  std::optional<LogicalSwitchFence::Arrival> arrival_;
  std::string error_;
};

/// Removes all logical switches of the host, in the caller's stack.  The error's text, empty on success.
std::string MP_RemoveAllLogicalSwitches(const std::shared_ptr<LogicalSwitchContext>& context);

}  // namespace zem::zema
