#include "app/zema/lswitch/logical_switch_context.h"

#include <utility>

#include "app/zema/covedb/covedb_handler.h"
#include "app/zema/workers/worker_table.h"
#include "framework/log/log.h"
#include "framework/node/host_identity.h"
#include "framework/node/platform_info.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

class NoZones final : public ZoneSwitchKinds {
 public:
  bool IsKln(const std::string& zone) override {
    ZLOG_DEBUG("[%s] no host switch is known for zone [%s]", __func__, zone.c_str());
    return false;
  }
};

class NoVifs final : public VifStateRealizer {
 public:
  void RemoveVif(const std::string& vif_id) override {
    ZLOG_DEBUG("[%s] nothing is kept of VIF [%s]", __func__, vif_id.c_str());
  }
  bool ProcessVif(const std::string& vif_id) override {
    ZLOG_DEBUG("[%s] nothing is kept of VIF [%s]", __func__, vif_id.c_str());
    return false;
  }
};

}  // namespace

ZoneSwitchKinds& ZoneSwitchKinds::None() {
  static NoZones none;
  return none;
}

VifStateRealizer& VifStateRealizer::None() {
  static NoVifs none;
  return none;
}

LogicalSwitchContext::LogicalSwitchContext(LumCommands& lum_commands, std::shared_ptr<CoveDbHandler> handler)
    : lum(lum_commands),
      store(std::move(handler)),
      is_hypervisor([] { return (Tarvik::GetNodeType() & Tarvik::kNodeQub) != 0; }),
      host_id([] { return Host().id(); }),
      add_logical_switch_task([](std::unique_ptr<Runnable> task) {
        return Workers().AddTask(Worker::kLogicalSwitch, std::move(task));
      }),
      clear_logical_switch_tasks([] { Workers().ClearTasks(Worker::kLogicalSwitch); }),
      has_ack_worker([] { return Workers().Find(Worker::kLsBatchAck) != nullptr; }),
      add_ack_task([](std::unique_ptr<Runnable> task) {
        return Workers().AddTask(Worker::kLsBatchAck, std::move(task));
      }) {
  if (!store) return;
  store->SetOnFlush([weak = std::weak_ptr<LogicalSwitchFence>(fence_owner)] {
    const auto owner = weak.lock();
    if (!owner) return;
    // A batch that runs is waited for.
    const Synchronizer lock(*owner, __FILE__, __LINE__);
    owner->Supersede();
  });
}

}  // namespace zem::zema
