#include "bench/guest-events/sim_endvat_lib.h"

namespace zem::sim::guest {
namespace {

using Handlers = EndvatLibrary::Handlers;
using Needs = EndvatLibrary::Needs;

Question Of(Operation operation, uint32_t kind = 0, uint64_t number = 0, uint64_t number2 = 0,
            const char* text = "") {
  Question question;
  question.operation = operation;
  question.kind = kind;
  question.number = number;
  question.number2 = number2;
  question.text = text;
  return question;
}

class SimEndvatLib final : public Ctxt::IEndvatLib {
 public:
  SimEndvatLib(GuestWorld& world, WrapNetworkHandler wrap)
      : library_([&world](const std::string&, uint32_t) { return std::make_unique<MemoryLink>(world); }),
        wrap_(wrap) {}

  ENDVAT_STATUS EndvatGetSolutionId(void* b, uint32_t* l) override {
    return library_.Query(Needs::kServiceVm, nullptr, Of(Operation::kSolutionId), b, l);
  }
  ENDVAT_STATUS EndvatGetHealthStatus(void* b, uint32_t* l) override {
    return library_.Query(Needs::kHealth, nullptr, Of(Operation::kHealthStatus), b, l);
  }
  ENDVAT_STATUS EndvatQueryConfiguration(ENDVAT_CONFIG* config, uint32_t*) override {
    uint64_t mask = 0;
    const ENDVAT_STATUS status = library_.GetMask(&mask);
    config->eventsMask = mask;
    return status;
  }
  ENDVAT_STATUS EndvatSetConfiguration(const ENDVAT_CONFIG* config) override {
    return library_.SetMask(config->eventsMask);
  }
  ENDVAT_STATUS EndvatLibInit(uint32_t version, const char* const* keys, const char* const* values,
                              ENDVAT_LIB_INFO* out) override {
    return library_.Init(version, keys, values, out);
  }
  ENDVAT_STATUS EndvatRegisterNetworkEventHandler(ENDVAT_NETWORK_HANDLER h) override {
    return library_.Register(&Handlers::network, wrap_ != nullptr ? wrap_(h) : h);
  }
  ENDVAT_STATUS EndvatRegisterTimerEventHandler(ENDVAT_TIMER_HANDLER h) override {
    return library_.Register(&Handlers::timer, h);
  }
  ENDVAT_STATUS EndvatRegisterVMEventHandler(ENDVAT_VM_HANDLER h) override {
    return library_.Register(&Handlers::vm, h);
  }
  ENDVAT_STATUS EndvatRegisterErrorHandler(ENDVAT_ERROR_HANDLER h) override {
    return library_.Register(&Handlers::error, h);
  }
  ENDVAT_STATUS EndvatRegisterMuxEventHandler(ENDVAT_MUX_HANDLER h) override {
    return library_.Register(&Handlers::mux, h);
  }
  ENDVAT_STATUS EndvatRegisterPanicHandler(ENDVAT_PANIC_HANDLER h) override {
    return library_.Register(&Handlers::panic, h);
  }
  ENDVAT_STATUS EndvatRegisterSystemEventHandler(ENDVAT_SYSTEM_HANDLER h) override {
    return library_.Register(&Handlers::system, h);
  }
  ENDVAT_STATUS EndvatEnableCallbacks() override { return library_.EnableCallbacks(); }
  ENDVAT_STATUS EndvatLibUnload() override { return library_.Unload(); }
  ENDVAT_STATUS EndvatQuerySystemInfo(uint32_t kind, void* b, uint32_t* l) override {
    return library_.Query(Needs::kGuest, nullptr, Of(Operation::kSystemInfo, kind), b, l);
  }
  ENDVAT_STATUS EndvatQuerySystemEventInformation(ENDVAT_HANDLE h, uint32_t kind, void* b,
                                                  uint32_t* l) override {
    return library_.Query(Needs::kEvent, h, Of(Operation::kSystemEventInformation, kind), b, l);
  }
  ENDVAT_STATUS EndvatGetVMId(void* b, uint32_t* l) override {
    return library_.Query(Needs::kGuest, nullptr, Of(Operation::kVmId), b, l);
  }
  ENDVAT_STATUS EndvatQueryRegistry(ENDVAT_HANDLE, const char*, const char*, void*, uint32_t*) override {
    return ENDVAT_ERROR_NOT_SUPPORTED;
  }
  ENDVAT_STATUS EndvatFileGetName(ENDVAT_HANDLE, void*, uint32_t*) override {
    return ENDVAT_ERROR_NOT_SUPPORTED;
  }
  ENDVAT_STATUS EndvatQuerySidInfo(ENDVAT_HANDLE h, const char* sid, void* b, uint32_t* l) override {
    return library_.Query(Needs::kEvent, h, Of(Operation::kSidInfo, 0, 0, 0, sid), b, l);
  }
  ENDVAT_STATUS EndvatLinuxQueryUidInfo(ENDVAT_HANDLE h, uint32_t uid, void* b, uint32_t* l) override {
    return library_.Query(Needs::kEvent, h, Of(Operation::kUidInfo, 0, uid), b, l);
  }
  ENDVAT_STATUS EndvatLinuxQueryGidInfo(ENDVAT_HANDLE, uint32_t, void*, uint32_t*) override {
    return ENDVAT_ERROR_NOT_SUPPORTED;
  }
  ENDVAT_STATUS EndvatSetVMData(ENDVAT_HANDLE h, void* data) override { return library_.SetData(h, data); }
  ENDVAT_STATUS EndvatNetworkGetEventInfo(ENDVAT_HANDLE h, void* b, uint32_t* l) override {
    return library_.Query(Needs::kNetworkEvent, h, Of(Operation::kNetworkEvent), b, l);
  }
  ENDVAT_STATUS EndvatQueryProcessInfo(const ENDVAT_PROCESS_ID* p, uint32_t kind, void* b,
                                       uint32_t* l) override {
    return library_.Query(Needs::kGuest, nullptr, Of(Operation::kProcessInfo, kind, p->pid, p->ctime), b, l);
  }
  ENDVAT_STATUS EndvatQuerySessionInfo(uint32_t session, uint32_t kind, void* b, uint32_t* l) override {
    return library_.Query(Needs::kGuest, nullptr, Of(Operation::kSessionInfo, kind, session), b, l);
  }
  ENDVAT_STATUS EndvatQueryNetworkEventInformation(ENDVAT_HANDLE h, uint32_t kind, void* b,
                                                   uint32_t* l) override {
    return library_.Query(Needs::kNetworkEvent, h, Of(Operation::kNetworkEventInformation, kind), b, l);
  }
  ENDVAT_STATUS EndvatQueryLogonSessionsEx(void* b, uint32_t* l) override {
    return library_.Query(Needs::kGuest, nullptr, Of(Operation::kLogonSessions), b, l);
  }
  ENDVAT_STATUS EndvatConfigureMux(const void* buffer, uint32_t length) override {
    return library_.ConfigureMux(buffer, length);
  }

 private:
  EndvatLibrary library_;
  const WrapNetworkHandler wrap_;
};

}  // namespace

std::shared_ptr<Ctxt::IEndvatLib> MakeSimEndvatLib(GuestWorld& world, WrapNetworkHandler wrap) {
  return std::make_shared<SimEndvatLib>(world, wrap);
}

}  // namespace zem::sim::guest
