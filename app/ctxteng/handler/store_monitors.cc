#include "app/ctxteng/handler/store_monitors.h"

#include <array>

#include "app/ctxteng/base/exceptions.h"
#include "covedbclient/codec/object_dispatcher.h"
#include "covedbclient/covedb_client_interface.h"
#include "covedbclient/statements.h"
#include "framework/log/log.h"
#include "platform/rpc/status.h"

namespace Ctxt {
namespace {

using orlane::zem::covedb::ObjectType;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr uint32_t kModuleId = 8;
constexpr int kTries = 4;

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

// What was known when the store was asked for all objects.
struct StoreMonitors::Question {
  uint64_t connection;
  uint64_t updates;
  bool for_values;  // a client that was not active needs them
  int tries;        // that are left after this one
};

void StoreMonitors::Configure(uint32_t client_ids,
                              const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store) {
  store_ = store;
  bool registered = false;
  for (const MonitorRow& row : kMonitors) {
    if ((client_ids & row.needed_by) == 0) continue;
    types_.push_back(row.type);
    if (!registered) {
      // The store client keeps a callback for as long as it lives.  A module that is registered already stays
      // so, which is no failure: the engine was started before.
      (void)store->RegisterMonitorCallback(
          kModuleId,
          [weak = weak_from_this()](const Update& update) {
            if (const auto self = weak.lock()) self->Take(update);
          },
          [weak = weak_from_this()] {
            if (const auto self = weak.lock()) self->TakeBarrier();
          },
          zem::covedb::kDefaultVDb);
      registered = true;
    }
    if (!store->ConfigureMonitor({zem::covedb::MonitorStatementFor(row.type)}, {}, kModuleId,
                                 zem::covedb::kDefaultVDb)) {
      throw CtxtCoveDbMonitorError(row.failure);
    }
    ZLOG_INFO("%s", row.success);
  }
  if (types_.empty()) return;
  store->AddChannelStatusCallback([weak = weak_from_this()](bool up) {
    if (const auto self = weak.lock()) self->TakeChannel(up);
  });
}

void StoreMonitors::SetActive(uint32_t active) {
  {
    std::lock_guard lock(mutex_);
    active_ = active;
    if ((dropped_ & active) == 0 || !channel_up_) return;
  }
  Ask(kTries);
}

void StoreMonitors::Take(const Update& update) {
  std::lock_guard lock(mutex_);
  ++updates_;
  Dispatch(update);
}

void StoreMonitors::Dispatch(const Update& update) {
  using Handler = zem::covedb::ObjectHandler<StoreMonitors>;
  static constexpr zem::covedb::ObjectDispatcher kDispatcher(
      std::array{Handler{static_cast<ObjectType>(136), &StoreMonitors::TakeGlobalConfig},
                 Handler{static_cast<ObjectType>(195), &StoreMonitors::SecurityToggleCallback},
                 Handler{static_cast<ObjectType>(29), &StoreMonitors::TakeRule},
                 Handler{static_cast<ObjectType>(30), &StoreMonitors::TakeRuleSection}});
  if (!kDispatcher.Dispatch(*this, update))
    ZLOG_DEBUG("CtxtClientHandler: No monitor for object type %d", static_cast<int>(update.object_type()));
}

IStoreUpdates* StoreMonitors::UpdatesOf(uint32_t bit, const std::shared_ptr<IStoreUpdates>& updates) {
  if ((active_ & bit) != 0) return updates.get();
  dropped_ |= bit;
  return nullptr;
}

void StoreMonitors::SecurityToggleCallback(const Update& update) {
  ZLOG_INFO("CtxtClientHandler: Security feature toggle callback detected");
  if (auto* const idfw = UpdatesOf(kIdfwBit, clients_.idfw_updates)) idfw->OnFeatureToggle(update);
  if (auto* const ids = UpdatesOf(kIdsBit, clients_.ids_updates)) ids->OnFeatureToggle(update);
}

void StoreMonitors::TakeGlobalConfig(const Update& update) {
  if (auto* const ids = UpdatesOf(kIdsBit, clients_.ids_updates)) ids->OnGlobalConfig(update);
}

void StoreMonitors::TakeRule(const Update& update) {
  if (auto* const ids = UpdatesOf(kIdsBit, clients_.ids_updates)) ids->OnRule(update);
}

void StoreMonitors::TakeRuleSection(const Update& update) {
  if (auto* const ids = UpdatesOf(kIdsBit, clients_.ids_updates)) ids->OnRuleSection(update);
}

// --- All that the store has.

void StoreMonitors::TakeChannel(bool up) {
  {
    std::lock_guard lock(mutex_);
    if (up == channel_up_) return;
    channel_up_ = up;
    if (!up) return;
    ++connections_;
    replaying_ = true;
    gave_up_ = false;
    updates_before_ = updates_;
    TellClients(&IStoreUpdates::StoreBegins);
  }
  Ask(kTries);
}

void StoreMonitors::TakeBarrier() {
  {
    std::lock_guard lock(mutex_);
    if (std::exchange(replaying_, false)) TellClients(&IStoreUpdates::StoreComplete);
    // Not at an update: while a batch of them arrives, each would outdate the answer.
    if (!std::exchange(gave_up_, false)) return;
  }
  Ask(kTries);
}

void StoreMonitors::TellClients(void (IStoreUpdates::*what)()) {
  if ((active_ & kIdfwBit) != 0 && clients_.idfw_updates != nullptr) (clients_.idfw_updates.get()->*what)();
  if ((active_ & kIdsBit) != 0 && clients_.ids_updates != nullptr) (clients_.ids_updates.get()->*what)();
}

void StoreMonitors::Ask(int tries) {
  const auto store = store_.lock();
  if (store == nullptr) return;
  if (tries == 0) {
    std::lock_guard lock(mutex_);
    gave_up_ = (dropped_ & active_) != 0;
    return;
  }
  std::list<orlane::zem::covedb::ObjectRequestMsg> requests;
  for (const int type : types_) requests.emplace_back().set_object_type(static_cast<ObjectType>(type));
  Question question{0, 0, false, tries - 1};
  {
    std::lock_guard lock(mutex_);
    question.connection = connections_;
    question.updates = updates_;
    question.for_values = (dropped_ & active_) != 0;
  }
  // False when the store has gone again: its return asks anew.
  (void)store->Get(
      requests,
      [weak = weak_from_this(), question](const std::list<orlane::zem::covedb::TypedObjectMsg>& objects,
                                          const zem::rpc::Status& status) {
        if (const auto self = weak.lock()) self->TakeObjects(question, objects, status);
      },
      zem::covedb::kDefaultVDb);
}

void StoreMonitors::TakeObjects(const Question& question,
                                const std::list<orlane::zem::covedb::TypedObjectMsg>& objects,
                                const zem::rpc::Status& status) {
  {
    std::lock_guard lock(mutex_);
    if (question.connection != connections_ || !channel_up_) return;
    // An update that came meanwhile may be newer than the answer.
    const bool values = status.ok() && question.for_values && question.updates == updates_;
    // What the store has is still on its way to the monitor, and ends with a barrier, if there is anything.
    const bool complete = status.ok() && replaying_ && objects.empty() && updates_ == updates_before_;
    if (complete) {
      replaying_ = false;
      TellClients(&IStoreUpdates::StoreComplete);
    }
    if (values) {
      dropped_ &= ~active_;
      DispatchObjects(objects);
    }
    if (values || complete) return;
    const bool open = question.for_values || (replaying_ && updates_ == updates_before_);
    if (!open) return;
  }
  if (!status.ok())
    ZLOG_WARN("CtxtClientHandler: The store does not tell what it has: %s", status.ToString().c_str());
  Ask(question.tries);
}

void StoreMonitors::DispatchObjects(const std::list<orlane::zem::covedb::TypedObjectMsg>& objects) {
  for (const auto& object : objects) {
    Update update;
    orlane::zem::covedb::ObjectOpMsg operation;
    operation.set_operation(orlane::zem::covedb::ObjectOpMsg::SET);
    update.set_object_type(object.object_type());
    update.set_operation(operation.SerializeAsString());
    update.set_object(object.object());
    Dispatch(update);
  }
}

}  // namespace Ctxt
