#include "app/zema/app/host_config_state.h"

#include <cstdint>
#include <string>

#include "platform/timeline/operation.h"

namespace zem::Tarvik {

PartState HostConfigState() {
  PartState state{"host configuration", {}, {}};
  for (const timeline::OperationPtr& each : timeline::Find({}, SIZE_MAX)) {
    if (each->kind() != timeline::Kind::kHostConfig || each->state() == timeline::State::kUnderWay) continue;
    if (each->state() == timeline::State::kDone) break;
    const timeline::OperationReading config = each->Read();
    state.fault = "the last one failed (" + config.what + "): " + config.error;
    state.heals = "one that can be applied; the manager has the error, and \"zem-tarvikctl why #" +
                  std::to_string(config.number) + "\" tells at which step";
    break;
  }
  return state;
}

}  // namespace zem::Tarvik
