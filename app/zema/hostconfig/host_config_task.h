#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "app/zema/manager/mpa_message_task.h"
#include "app/zema/proxy/error_sink.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {

/// Applies one host configuration of the manager to the node and reports the outcome to the manager.
///
/// Threads: one, which is not a provider's.
class HostConfigTask : public MpaMessageTask<orlane::zem::switching::HostConfigMsg> {
 public:
  using HostConfigMsg = orlane::zem::switching::HostConfigMsg;
  using MpaMessageTask::MpaMessageTask;

  void Run() override;
  bool IsBatchable() const override { return false; }

  /// `upgrade`: the message was saved by an upgrade of the agent.  `reset`: the host itself asked for the
  /// removal of its switches; the message is empty.
  virtual void ApplyHostConfig(bool upgrade, bool reset) = 0;

  /// The message as the application has changed it, with the errors and the endpoints' ids.
  virtual HostConfigMsg BuildReply();

  /// All errors in one text; empty when there were none.
  std::string ErrorText() const;

 protected:
  ErrorSink errors_;
  std::set<uint32_t> endpoint_ids_;
};

}  // namespace zem::zema
