#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "app/zema/lswitch/logical_switch_context.h"
#include "framework/tasks/runnable.h"
#include "platform/wft/workflow_util.h"
#include "proto/switching/logical_switch.pb.h"

namespace zem::zema {

class MpaMessageSender;

/// One message about logical switches; only data for the batcher, so Run does nothing.
class LogicalSwitchMsgTask final : public Runnable {
 public:
  using Info = orlane::zem::switching::LogicalSwitchMsg::LogicalSwitchInfoMsg;

  struct Record {
    std::string name;
    std::string path;
    int32_t revision = 0;
  };
  using Switches = std::map<std::string, Record>;  // by uuid
  using Zones = std::map<std::string, Switches>;   // by transport zone

  class Batcher;

  /// Returns null, after logging the reason, when the message holds nothing for this host.  For an update of
  /// the store, `sender` is null and `reply_to` is "covedb"; otherwise `sender` has to outlive the task.
  /// `generation` is the fence's generation when the message was found valid; without it the current one is
  /// used.
  static std::unique_ptr<LogicalSwitchMsgTask> CreateTask(
      const LogicalSwitchContext& context, const orlane::zem::switching::LogicalSwitchMsg& message,
      MpaMessageSender* sender, const std::string& reply_to, uint64_t barrier,
      std::optional<uint64_t> generation = std::nullopt);

  /// Does nothing.
  void Run() override {}

 private:
  LogicalSwitchMsgTask(const LogicalSwitchContext& context, MpaMessageSender* sender, std::string reply_to,
                       uint64_t barrier, uint64_t generation);

  static bool AddLogicalSwitchUpdate(const LogicalSwitchContext& context, LogicalSwitchMsgTask* task,
                                     const Info& info);

  Zones apply_;
  std::set<std::string> deletes_;
  const std::string reply_to_;
  MpaMessageSender* const sender_;
  wft::TraceContext trace_info_;
  const uint64_t barrier_;
  const uint64_t generation_;
  const uint64_t epoch_;
};

}  // namespace zem::zema
