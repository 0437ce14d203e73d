#pragma once

#include <memory>
#include <string>

#include "app/zema/lswitch/logical_switch_fence.h"

namespace zem {
class HostIdentity;
}  // namespace zem

namespace zem::zema {

class CoveDbHandler;
class LumCommands;
class MpaMessageSender;
class OptionsStore;
class TaskQueues;
struct HostConfigState;

/// Finds out which kind of host switch carries a transport zone.
class ZoneSwitchKinds {
 public:
  virtual ~ZoneSwitchKinds() = default;
  /// Returns true for a switch of kind "KLN", which needs no opaque networks, and false for a zone that no
  /// switch carries.
  virtual bool IsKln(const std::string& transport_zone_id) = 0;
};

/// Realizes the state of a VIF that the store sends.
class VifStateRealizer {
 public:
  virtual ~VifStateRealizer() = default;
  /// Discards what is known of the VIF.
  virtual void RemoveVif(const std::string& vif_id) = 0;
  /// Passes a request for the VIF to the host management handler; returns false when the VIF is unknown.
  virtual bool ProcessVif(const std::string& vif_id) = 0;
};

/// The objects that the logical switch tasks use.  One per application, shared by all its tasks and workers;
/// everything that it refers to outlives it.
struct LogicalSwitchContext {
  LogicalSwitchContext(LumCommands& the_lum, std::shared_ptr<CoveDbHandler> handler,
                       ZoneSwitchKinds& zone_kinds, VifStateRealizer& vifs, TaskQueues& queues,
                       HostIdentity& identity, OptionsStore& realization_options, HostConfigState& host_state,
                       bool is_hypervisor);

  LumCommands& lum;
  /// Null on a host without store.
  const std::shared_ptr<CoveDbHandler> store;
  ZoneSwitchKinds& kinds;
  VifStateRealizer& vif_states;
  TaskQueues& workers;
  HostIdentity& host;
  OptionsStore& options;
  HostConfigState& state;
  /// Whether this node is a hypervisor; only hypervisors have opaque networks.
  const bool hypervisor;
  /// For configurations that are read back from the store; null while there is no manager to answer.
  MpaMessageSender* sender = nullptr;

  /// Shared with the store handler, whose flush makes gathered updates void.
  const std::shared_ptr<LogicalSwitchFence> fence_owner = std::make_shared<LogicalSwitchFence>();
  LogicalSwitchFence& fence = *fence_owner;
};

}  // namespace zem::zema
