#include "app/ctxteng/engine/ctxt_core.h"

#include <chrono>
#include <new>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/engine/library_session.h"
#include "app/ctxteng/engine/mux_events.h"
#include "app/ctxteng/guest/endvat_lib.h"
#include "app/ctxteng/guest/endvat_util.h"
#include "app/ctxteng/guest/event_keys.h"
#include "app/ctxteng/guest/vm_data_reader.h"
#include "app/ctxteng/handler/ctxt_client_handler.h"
#include "framework/log/log.h"
#include "platform/metrics/process_metrics.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr std::chrono::seconds kCallbackPatience{15};
constexpr uint32_t kVerdict = 1;

// Runs a client's work; what it throws stays inside the engine.
template <class Work>
void Contain(const char* event, const Work& work) {
  try {
    work();
  } catch (const std::exception& error) {
    ZLOG_WARN("CtxtCore: Exception while processing %s event, error %s", event, error.what());
  } catch (...) {
    ZLOG_WARN("CtxtCore: Unhandled exception while processing %s event", event);
  }
}

// The library calls plain functions; they lead to the core of the process.
const EndvatHandlers kHandlers = {
    .vm = [](uint32_t type, ENDVAT_HANDLE handle,
             void* data) { CtxtCore::GetInstance().VmEventHandler(type, handle, data); },
    .timer = [](void* data) { CtxtCore::GetInstance().TimerEventHandler(data); },
    .network = [](uint32_t type, ENDVAT_HANDLE handle,
                  void* data) { return CtxtCore::GetInstance().NetworkEventHandler(type, handle, data); },
    .system = [](uint32_t type, ENDVAT_HANDLE handle,
                 void* data) { CtxtCore::GetInstance().SystemEventHandler(type, handle, data); },
    .mux = [](uint32_t type) { CtxtCore::GetInstance().MuxEventHandler(type); },
    .error =
        [](ENDVAT_STATUS status) {
          ZLOG_CTX_ERROR(178, "CtxtCore: Error handler called from EndvatLib, behavior may be undefined, %s",
                         EndvatUtil::ErrorName(status));
        },
    .panic =
        [] {
          ZLOG_CTX_ERROR(179, "CtxtCore: Panic handler called from EndvatLib, behavior may be undefined");
        },
};

void CountEvent() {
  static zem::metrics::Counter& events = zem::metrics::CounterOf(zem::metrics::MetricId::kGuestEvents);
  events.Add();
}

}  // namespace

CtxtCore& CtxtCore::GetInstance() {
  // Never destroyed: a thread of the library may still be in it while the process ends.
  static CtxtCore& core = *new CtxtCore();
  return core;
}

CtxtCore::CtxtCore() = default;
CtxtCore::~CtxtCore() = default;

void CtxtCore::Initialize(const Settings& settings, EngineParts parts,
                          const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store,
                          const std::shared_ptr<zem::upm::UPMService>& profiles) {
  guests_.SetProtocolMask(kProtocolBits);
  if (!something_left_inside_) {
    run_ = nullptr;
    runs_.clear();
  }
  runs_.push_back(std::make_unique<Run>());
  Run* const run = runs_.back().get();
  run->parts = std::move(parts);
  run->handler = std::make_unique<CtxtClientHandler>(run->parts.clients, users_, *run->parts.firewall);
  mux_away_ = false;
  run->mux = std::make_unique<MuxEvents>(run->parts.introspection, run->parts.health, mux_away_);
  run_ = run;
  CloseEndvatQueries(false);
  gate_.Open();
  if (run->parts.channel != nullptr) run->parts.channel->Initialize();
  InitializeEndvat(run->parts.make_library(), settings.listen_port, settings.worker_threads,
                   settings.max_events_per_vm, kHandlers);
  if (run->parts.health != nullptr) run->parts.health->Initialize();
  if (run->parts.introspection != nullptr) run->parts.introspection->Initialize(store, profiles);
  users_.InitializeMetadata(settings.param.userMetadataCacheSize);
  run->handler->Initialize(settings.client_ids, settings.param, store, profiles, [this] { NotifyStarted(); });
}

void CtxtCore::Shutdown(uint32_t client_ids) {
  ZLOG_INFO("CtxtCore: Shutdown");
  // Callbacks that run have to be out before their records go; those that come are turned away.
  CloseEndvatQueries(true);
  if (!gate_.Close(kCallbackPatience)) {
    something_left_inside_ = true;
    ZLOG_WARN("CtxtCore: A callback has not returned, going on");
  }
  Run* const run = run_;
  if (run != nullptr && !run->handler->Shutdown(client_ids)) something_left_inside_ = true;
  guests_.Clear();
  users_.ClearMetadata();
  users_.ClearSessions();
  try {
    UnloadEndvat();
  } catch (const EndvatApiError& error) {
    ZLOG_CTX_ERROR(177, "CtxtCore: Failed to unload Context library, error: %s", error.what());
  }
  SetEndvatLib(nullptr);
  ZLOG_INFO("CtxtCore: Unloaded Context library");
  if (run == nullptr) return;
  if (run->parts.channel != nullptr) run->parts.channel->Shutdown();
  if (run->parts.health != nullptr) run->parts.health->Shutdown();
  if (run->parts.introspection != nullptr) run->parts.introspection->Shutdown();
}

uint32_t CtxtCore::active_clients() const {
  Run* const run = run_;
  return run == nullptr ? 0 : run->handler->active_clients();
}

void CtxtCore::VmEventHandler(uint32_t type, ENDVAT_HANDLE handle, void* data) {
  CountEvent();
  const CallbackGate::Pass pass(gate_);
  if (!pass) return;
  if (type == 0) {
    Contain("power-on", [&] { PowerOn(handle); });
  } else if (type == 1) {
    Contain("power-off", [&] { PowerOff(data); });
  } else {
    ZLOG_INFO("CtxtCore: Unhandled event type: %d", static_cast<int>(type));
  }
}

void CtxtCore::PowerOn(ENDVAT_HANDLE handle) {
  GuestTable::Record vm;
  try {
    vm = std::make_shared<VmData>();
  } catch (const std::bad_alloc&) {
    ZLOG_CTX_ERROR(1054, "CtxtCore: Failed to allocate memory for vmData");
    return;
  }
  if (FillVmData(*vm) != ENDVAT_SUCCESS) return;
  ++vm->vm_events;
  ZLOG_INFO("CtxtCore: Power On VM VCUUID: %s, BiosUUID: %s, gcfPath: %s", vm->vc_uuid.c_str(),
            vm->bios_uuid.c_str(), vm->gcf_path.c_str());
  const GuestTable::Record before = guests_.Find(vm->vc_uuid);
  guests_.Add(vm);
  const uint32_t status = EndvatLib()->EndvatSetVMData(handle, vm.get());
  if (status != ENDVAT_SUCCESS) {
    ZLOG_WARN("CtxtCore: Failed to set the data of VM VCUUID: %s, error: %s", vm->vc_uuid.c_str(),
              EndvatUtil::ErrorName(status));
    // The library would hand out a null record, so nobody could take this one out again.  The record that it
    // has pushed out goes back in: the clients know the guest by it, and learn of its end through it.
    (void)guests_.Remove(vm);
    if (before != nullptr && guests_.Resolve(before.get()) == before) guests_.Add(before);
    return;
  }
  run_.load()->handler->VmPowerOn(vm);
}

void CtxtCore::PowerOff(const void* data) {
  const GuestTable::Record vm = guests_.Resolve(data);
  if (vm == nullptr) {
    ZLOG_INFO("CtxtCore: Ignoring VM power off event due to NULL vmdata");
    return;
  }
  ++vm->vm_events;
  ZLOG_INFO("CtxtCore: Power Off VM VCUUID: %s, BiosUuid: %s", vm->vc_uuid.c_str(), vm->bios_uuid.c_str());
  // A guest that was announced again has another record: it runs on, and the clients keep it.
  if (guests_.Find(vm->vc_uuid) == vm) {
    Contain("power-off", [&] { run_.load()->handler->VmPowerOff(vm); });
    users_.ForgetGuest(vm->vc_uuid);
  }
  (void)guests_.Remove(vm);
}

void CtxtCore::TimerEventHandler(void* data) {
  const CallbackGate::Pass pass(gate_);
  if (!pass) return;
  const GuestTable::Record vm = guests_.Resolve(data);
  if (vm == nullptr) {
    ZLOG_INFO("CtxtCore: Ignoring timer event due to NULL vmdata");
    return;
  }
  ++vm->timer_events;
  vm->last_timer_event = WallMilliseconds() / 1000;
  Run* const run = run_;
  Contain("timer", [&] { run->handler->Timer(vm); });
  // Another record has taken this one's place: the mask that the table knows is for the new run.
  if (guests_.Find(vm->vc_uuid) == vm) HandTheMaskOver(*vm);
  const uint32_t tick = vm->tick++;
  Contain("timer", [&] {
    if (FetchGiInfo(*vm, tick)) run->handler->GiInfo(vm);
  });
}

// A mask that the library refuses, and one that changes meanwhile, stay dirty and go out with the next tick.
void CtxtCore::HandTheMaskOver(VmData& vm) {
  const auto dirty = guests_.GetEventMaskIfDirty(vm.vc_uuid);
  if (!dirty) return;
  if (EndvatUtil::UpdateEventsMask(dirty->mask, true, true) == ENDVAT_SUCCESS)
    guests_.ResetDirtyBits(vm.vc_uuid, dirty->generation);
}

uint32_t CtxtCore::NetworkEventHandler(uint32_t type, ENDVAT_HANDLE handle, void* data) {
  CountEvent();
  const CallbackGate::Pass pass(gate_);
  if (!pass) return kVerdict;
  const GuestTable::Record vm = guests_.Resolve(data);
  if (vm == nullptr) {
    ZLOG_INFO("CtxtCore: Ignoring network event due to NULL vmdata");
    return kVerdict;
  }
  vm->network_events.fetch_add(1, std::memory_order_relaxed);
  return run_.load()->handler->NetworkEvent(type, handle, vm);
}

void CtxtCore::SystemEventHandler(uint32_t type, ENDVAT_HANDLE handle, void* data) {
  CountEvent();
  const CallbackGate::Pass pass(gate_);
  if (!pass) return;
  const GuestTable::Record vm = guests_.Resolve(data);
  if (vm == nullptr) {
    ZLOG_INFO("CtxtCore: Ignoring system event due to NULL vmdata");
    return;
  }
  ++vm->system_events;
  if (!vm->vc_uuid.empty()) {
    ZLOG_INFO("CtxtCore: System event for VM vcUuid: %s", vm->vc_uuid.c_str());
  } else {
    ZLOG_INFO("CtxtCore: System event for VM biosUuid: %s", vm->bios_uuid.c_str());
  }
  Contain("system", [&] { run_.load()->handler->SystemEvent(type, handle, vm); });
}

void CtxtCore::MuxEventHandler(uint32_t type) {
  const CallbackGate::Pass pass(gate_);
  if (!pass) return;
  run_.load()->mux->Handle(type);
}

}  // namespace Ctxt
