#include "app/ctxteng/handler/store_monitors.h"

#include <array>

#include "app/ctxteng/base/exceptions.h"
#include "covedbclient/codec/object_dispatcher.h"
#include "covedbclient/covedb_client_interface.h"
#include "covedbclient/statements.h"
#include "framework/log/log.h"

namespace Ctxt {
namespace {

using orlane::zem::covedb::ObjectType;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr uint32_t kModuleId = 8;

struct MonitorRow {
  ObjectType type;
  uint32_t needed_by;
  const char* success;
  const char* failure;
};
constexpr std::array kMonitors = {
    MonitorRow{static_cast<ObjectType>(136), kIdsBit,
               "CtxtClientHandler: Configured Ids global config monitor in CoveDB",
               "Failed to configure Ids global config monitor in CoveDB"},
    MonitorRow{static_cast<ObjectType>(195), kIdfwBit | kIdsBit,
               "CtxtClientHandler: Configured security feature toggle in CoveDB",
               "Failed to configure security feature toggle in CoveDB"},
    MonitorRow{static_cast<ObjectType>(29), kIdsBit, "CtxtClientHandler: Configured Rule monitor in CoveDB",
               "Failed to configure Rule monitor in CoveDB"},
    MonitorRow{static_cast<ObjectType>(30), kIdsBit,
               "CtxtClientHandler: Configured Rule section monitor in CoveDB",
               "Failed to configure Rule section monitor in CoveDB"},
};

}  // namespace

void StoreMonitors::Configure(uint32_t client_ids, zem::covedb::CoveDbClientInterface& store) {
  bool registered = false;
  for (const MonitorRow& row : kMonitors) {
    if ((client_ids & row.needed_by) == 0) continue;
    if (!registered) {
      // The store client keeps a callback for as long as it lives.  A module that is registered already stays
      // so, which is no failure: the engine was started before.
      (void)store.RegisterMonitorCallback(
          kModuleId,
          [weak = weak_from_this()](const Update& update) {
            if (const auto self = weak.lock()) self->Take(update);
          },
          [] {}, zem::covedb::kDefaultVDb);
      registered = true;
    }
    if (!store.ConfigureMonitor({zem::covedb::MonitorStatementFor(row.type)}, {}, kModuleId,
                                zem::covedb::kDefaultVDb)) {
      throw CtxtCoveDbMonitorError(row.failure);
    }
    ZLOG_INFO("%s", row.success);
  }
}

void StoreMonitors::Take(const Update& update) {
  using Handler = zem::covedb::ObjectHandler<StoreMonitors>;
  static constexpr zem::covedb::ObjectDispatcher kDispatcher(
      std::array{Handler{static_cast<ObjectType>(136), &StoreMonitors::TakeGlobalConfig},
                 Handler{static_cast<ObjectType>(195), &StoreMonitors::SecurityToggleCallback},
                 Handler{static_cast<ObjectType>(29), &StoreMonitors::TakeRule},
                 Handler{static_cast<ObjectType>(30), &StoreMonitors::TakeRuleSection}});
  if (!kDispatcher.Dispatch(*this, update))
    ZLOG_DEBUG("CtxtClientHandler: No monitor for object type %d", static_cast<int>(update.object_type()));
}

void StoreMonitors::SecurityToggleCallback(const Update& update) {
  ZLOG_INFO("CtxtClientHandler: Security feature toggle callback detected");
  if (Active(kIdfwBit) && clients_.idfw_updates != nullptr) clients_.idfw_updates->FeatureToggle(update);
  if (Active(kIdsBit) && clients_.ids_updates != nullptr) clients_.ids_updates->FeatureToggle(update);
}

void StoreMonitors::TakeGlobalConfig(const Update& update) {
  if (Active(kIdsBit) && clients_.ids_updates != nullptr) clients_.ids_updates->GlobalConfig(update);
}

void StoreMonitors::TakeRule(const Update& update) {
  if (Active(kIdsBit) && clients_.ids_updates != nullptr) clients_.ids_updates->Rule(update);
}

void StoreMonitors::TakeRuleSection(const Update& update) {
  if (Active(kIdsBit) && clients_.ids_updates != nullptr) clients_.ids_updates->RuleSection(update);
}

}  // namespace Ctxt
