#include "app/ctxteng/guest/endvat_lib.h"

#include <array>
#include <atomic>
#include <mutex>

#include "framework/process/dynamic_library.h"

namespace Ctxt {
namespace {

// The functions of the library, each once: its name and parameters.
#define ENDVAT_FUNCTIONS(F)                                                                                \
  F(EndvatGetSolutionId, (void* b, uint32_t* l), (b, l))                                                   \
  F(EndvatGetHealthStatus, (void* b, uint32_t* l), (b, l))                                                 \
  F(EndvatQueryConfiguration, (ENDVAT_CONFIG * c, uint32_t * s), (c, s))                                   \
  F(EndvatSetConfiguration, (const ENDVAT_CONFIG* c), (c))                                                 \
  F(EndvatLibInit, (uint32_t v, const char* const* k, const char* const* w, ENDVAT_LIB_INFO* o),           \
    (v, k, w, o))                                                                                          \
  F(EndvatRegisterNetworkEventHandler, (ENDVAT_NETWORK_HANDLER h), (h))                                    \
  F(EndvatRegisterTimerEventHandler, (ENDVAT_TIMER_HANDLER h), (h))                                        \
  F(EndvatRegisterVMEventHandler, (ENDVAT_VM_HANDLER h), (h))                                              \
  F(EndvatRegisterErrorHandler, (ENDVAT_ERROR_HANDLER h), (h))                                             \
  F(EndvatRegisterMuxEventHandler, (ENDVAT_MUX_HANDLER h), (h))                                            \
  F(EndvatRegisterPanicHandler, (ENDVAT_PANIC_HANDLER h), (h))                                             \
  F(EndvatRegisterSystemEventHandler, (ENDVAT_SYSTEM_HANDLER h), (h))                                      \
  F(EndvatEnableCallbacks, (), ())                                                                         \
  F(EndvatLibUnload, (), ())                                                                               \
  F(EndvatQuerySystemInfo, (uint32_t k, void* b, uint32_t* l), (k, b, l))                                  \
  F(EndvatQuerySystemEventInformation, (ENDVAT_HANDLE h, uint32_t k, void* b, uint32_t* l), (h, k, b, l))  \
  F(EndvatGetVMId, (void* b, uint32_t* l), (b, l))                                                         \
  F(EndvatQueryRegistry, (ENDVAT_HANDLE h, const char* k, const char* v, void* b, uint32_t* l),            \
    (h, k, v, b, l))                                                                                       \
  F(EndvatFileGetName, (ENDVAT_HANDLE h, void* b, uint32_t* l), (h, b, l))                                 \
  F(EndvatQuerySidInfo, (ENDVAT_HANDLE h, const char* s, void* b, uint32_t* l), (h, s, b, l))              \
  F(EndvatLinuxQueryUidInfo, (ENDVAT_HANDLE h, uint32_t u, void* b, uint32_t* l), (h, u, b, l))            \
  F(EndvatLinuxQueryGidInfo, (ENDVAT_HANDLE h, uint32_t g, void* b, uint32_t* l), (h, g, b, l))            \
  F(EndvatSetVMData, (ENDVAT_HANDLE h, void* d), (h, d))                                                   \
  F(EndvatNetworkGetEventInfo, (ENDVAT_HANDLE h, void* b, uint32_t* l), (h, b, l))                         \
  F(EndvatQueryProcessInfo, (const ENDVAT_PROCESS_ID* p, uint32_t k, void* b, uint32_t* l), (p, k, b, l))  \
  F(EndvatQuerySessionInfo, (uint32_t s, uint32_t k, void* b, uint32_t* l), (s, k, b, l))                  \
  F(EndvatQueryNetworkEventInformation, (ENDVAT_HANDLE h, uint32_t k, void* b, uint32_t* l), (h, k, b, l)) \
  F(EndvatQueryLogonSessionsEx, (void* b, uint32_t* l), (b, l))                                            \
  F(EndvatConfigureMux, (const void* b, uint32_t l), (b, l))

class EndvatLibImpl final : public IEndvatLib {
 public:
  EndvatLibImpl() : library_("libEndvat.so") {
    const std::array symbols = {
#define ENDVAT_SYMBOL(name, parameters, arguments) zem::DynamicLibrary::Of(#name, &name##_),
        ENDVAT_FUNCTIONS(ENDVAT_SYMBOL)
#undef ENDVAT_SYMBOL
    };
    // What is missing is logged by the loader, and each call answers that it is.
    std::string error;
    (void)library_.Open(symbols, &error);
  }

#define ENDVAT_CALL(name, parameters, arguments)                                     \
  ENDVAT_STATUS name parameters override {                                           \
    return name##_ == nullptr ? ENDVAT_ERROR_RESOURCE_NOT_FOUND : name##_ arguments; \
  }
  ENDVAT_FUNCTIONS(ENDVAT_CALL)
#undef ENDVAT_CALL

 private:
  zem::DynamicLibrary library_;
#define ENDVAT_POINTER(name, parameters, arguments) ENDVAT_STATUS(*name##_) parameters = nullptr;
  ENDVAT_FUNCTIONS(ENDVAT_POINTER)
#undef ENDVAT_POINTER
};

class NoEndvatLib final : public IEndvatLib {
 public:
#define ENDVAT_REFUSAL(name, parameters, arguments) \
  ENDVAT_STATUS name parameters override {          \
    const auto ignore = [](auto&&...) {};           \
    ignore arguments;                               \
    return ENDVAT_ERROR_NOT_INITIALIZED;            \
  }
  ENDVAT_FUNCTIONS(ENDVAT_REFUSAL)
#undef ENDVAT_REFUSAL
};

std::atomic<std::shared_ptr<IEndvatLib>>& Current() {
  static std::atomic<std::shared_ptr<IEndvatLib>> library{std::make_shared<NoEndvatLib>()};
  return library;
}

std::atomic<bool> queries_closed{false};

}  // namespace

std::shared_ptr<IEndvatLib> MakeEndvatLib() { return std::make_shared<EndvatLibImpl>(); }

std::shared_ptr<IEndvatLib> EndvatLib() { return Current().load(); }

void SetEndvatLib(std::shared_ptr<IEndvatLib> library) {
  Current().store(library != nullptr ? std::move(library) : std::make_shared<NoEndvatLib>());
}

void CloseEndvatQueries(bool closed) { queries_closed = closed; }

bool EndvatQueriesClosed() { return queries_closed; }

}  // namespace Ctxt
