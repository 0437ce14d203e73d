#pragma once

#include <memory>
#include <optional>
#include <string>

#include "app/zema/lswitch/logical_switch_context.h"
#include "app/zema/manager/mpa_message_task.h"
#include "proto/switching/logical_switch.pb.h"

namespace zem::zema {

/// The manager's own full sync: its bytes are passed to the host unchanged.
///
/// The task is created when the message arrives.  From then on, earlier updates of the manager are void, and
/// later ones wait until the task has run.
class LogicalSwitchFullSyncTask final : public MpaMessageTask<orlane::zem::switching::LogicalSwitchBulkMsg> {
 public:
  /// `sender` may be null, in which case no answer is sent.
  LogicalSwitchFullSyncTask(std::shared_ptr<LogicalSwitchContext> context, MpaMessageSender* sender,
                            std::string correlation_id, std::string reply_to, std::string payload);

  void Run() override;

  /// The error of the last run; empty when it succeeded.
  const std::string& error() const { return error_; }

 private:
  const std::shared_ptr<LogicalSwitchContext> context_;
  const std::string payload_;
  std::optional<LogicalSwitchFence::Arrival> arrival_;
  std::string error_;
};

/// Removes all logical switches of the host, synchronously.  Returns the error's text, empty on success.
std::string MP_RemoveAllLogicalSwitches(const std::shared_ptr<LogicalSwitchContext>& context);

}  // namespace zem::zema
