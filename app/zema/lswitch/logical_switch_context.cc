#include "app/zema/lswitch/logical_switch_context.h"

#include <utility>

#include "app/zema/covedb/covedb_handler.h"

namespace zem::zema {

LogicalSwitchContext::LogicalSwitchContext(LumCommands& the_lum, std::shared_ptr<CoveDbHandler> handler,
                                           ZoneSwitchKinds& zone_kinds, VifStateRealizer& vifs,
                                           TaskQueues& queues, HostIdentity& identity,
                                           OptionsStore& realization_options, HostConfigState& host_state,
                                           bool is_hypervisor)
    : lum(the_lum),
      store(std::move(handler)),
      kinds(zone_kinds),
      vif_states(vifs),
      workers(queues),
      host(identity),
      options(realization_options),
      state(host_state),
      hypervisor(is_hypervisor) {
  if (!store) return;
  store->SetOnFlush([weak = std::weak_ptr<LogicalSwitchFence>(fence_owner)] {
    const auto owner = weak.lock();
    if (!owner) return;
    // Waits for a running batch.
    const Synchronizer lock(*owner, __FILE__, __LINE__);
    owner->Supersede();
  });
}

}  // namespace zem::zema
