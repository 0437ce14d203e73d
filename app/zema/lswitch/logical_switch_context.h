#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "app/zema/lswitch/logical_switch_fence.h"
#include "app/zema/state/realization_options.h"
#include "framework/tasks/runnable.h"

namespace zem::zema {

class CoveDbHandler;
class LumCommands;
class MpaMessageSender;

/// Which kind of host switch carries a transport zone.
class ZoneSwitchKinds {
 public:
  virtual ~ZoneSwitchKinds() = default;
  /// True for a switch of kind "KLN", which needs no opaque networks.  A zone that no switch carries: false.
  virtual bool IsKln(const std::string& transport_zone_id) = 0;

  /// Knows no zone.
  static ZoneSwitchKinds& None();
};

/// What becomes of the state of a VIF that the store tells.
class VifStateRealizer {
 public:
  virtual ~VifStateRealizer() = default;
  /// Forgets the VIF.
  virtual void RemoveVif(const std::string& vif_id) = 0;
  /// Hands a request for the VIF to the host management handler; false when nothing is known of the VIF.
  virtual bool ProcessVif(const std::string& vif_id) = 0;

  /// Knows no VIF.
  static VifStateRealizer& None();
};

/// What the logical switch tasks work with.  One per application, shared by all its tasks and workers.
struct LogicalSwitchContext {
  LumCommands& lum;
  /// Null on a host without store.
  std::shared_ptr<CoveDbHandler> store;
  // Never null; have to outlive the context.
  ZoneSwitchKinds* kinds = &ZoneSwitchKinds::None();
  VifStateRealizer* vif_states = &VifStateRealizer::None();
  /// For configurations that come back from the store; null while there is no manager to tell.
  MpaMessageSender* sender = nullptr;

  std::function<RealizationOptions()> options = [] { return RealizationOptions(); };
  /// The transport node is being removed: nothing is created or deleted meanwhile.
  std::function<bool()> del_zem_running = [] { return false; };
  std::function<bool()> is_hypervisor;
  /// This transport node's id.
  std::function<std::optional<std::string>()> host_id;
  /// Offers a task to the logical switch worker; false, with the task destroyed, when there is none.
  std::function<bool(std::unique_ptr<Runnable>)> add_logical_switch_task;
  /// Destroys what waits in the logical switch worker's queue.
  std::function<void()> clear_logical_switch_tasks;
  /// The same for the worker that gathers acknowledgements; they go out one by one when there is none.
  std::function<bool()> has_ack_worker;
  std::function<bool(std::unique_ptr<Runnable>)> add_ack_task;

  /// Shared with the store handler, whose flush voids what is gathered.
  const std::shared_ptr<LogicalSwitchFence> fence_owner = std::make_shared<LogicalSwitchFence>();
  LogicalSwitchFence& fence = *fence_owner;

  /// The functions that ask the process: its node type, host identity and worker table.
  LogicalSwitchContext(LumCommands& lum, std::shared_ptr<CoveDbHandler> store);
};

}  // namespace zem::zema
