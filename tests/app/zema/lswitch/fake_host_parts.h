#pragma once

#include <string>
#include <utility>
#include <vector>

#include "app/zema/lswitch/logical_switch_context.h"
#include "app/zema/state/host_config_state.h"
#include "app/zema/state/realization_options.h"
#include "app/zema/workers/worker_table.h"
#include "framework/node/host_identity.h"

namespace zem::zema {

/// A host whose zones are KLN when their name says so, and which knows either every VIF or none.
class FakeHostParts : public ZoneSwitchKinds, public VifStateRealizer {
 public:
  explicit FakeHostParts(const std::string& host_id = "") {
    if (!host_id.empty()) identity.SetHostId(host_id);
  }

  bool IsKln(const std::string& zone) override { return zone == "kln"; }
  void RemoveVif(const std::string& vif_id) override { vif_events.push_back("remove " + vif_id); }
  bool ProcessVif(const std::string& vif_id) override {
    vif_events.push_back("process " + vif_id);
    return vifs_known;
  }

  std::shared_ptr<LogicalSwitchContext> Context(LumCommands& lum, std::shared_ptr<CoveDbHandler> store,
                                                TaskQueues& queues, bool hypervisor = true) {
    return std::make_shared<LogicalSwitchContext>(lum, std::move(store), *this, *this, queues, identity,
                                                  options, state, hypervisor);
  }

  std::vector<std::string> vif_events;
  bool vifs_known = true;
  HostIdentity identity;
  OptionsStore options;
  HostConfigState state;
};

}  // namespace zem::zema
