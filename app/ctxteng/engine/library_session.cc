#include "app/ctxteng/engine/library_session.h"

#include <array>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/guest/endvat_lib.h"
#include "app/ctxteng/guest/endvat_names.h"
#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr uint32_t kLibraryVersion = 1;

void Check(const char* call, ENDVAT_STATUS status) {
  if (status != ENDVAT_SUCCESS) throw EndvatApiError(call, status, EndvatUtil::ErrorName(status));
}

void InitializeLibrary(IEndvatLib& library, const std::string& listen_port, const std::string& worker_threads,
                       const std::string& max_events_per_vm, const EndvatHandlers& handlers) {
  const std::array<const char*, 8> keys = {
      "EndvatPort",        "EndvatWritablePath",  "VendorID", "EndvatWorkerThreads", "EndvatRequestTimeoutMs",
      "EndvatMaxEventsVM", "EndvatApplianceMode", nullptr};
  const std::array<const char*, 8> values = {listen_port.c_str(),
                                             "",
                                             "Orlane ZEM Context Engine",
                                             worker_threads.c_str(),
                                             "10000",
                                             max_events_per_vm.c_str(),
                                             "0",
                                             nullptr};
  ENDVAT_LIB_INFO info{};
  Check("EndvatLibInit", library.EndvatLibInit(kLibraryVersion, keys.data(), values.data(), &info));
  ZLOG_INFO("CtxtCore: Registering VM event handler");
  Check("EndvatRegisterVMEventHandler", library.EndvatRegisterVMEventHandler(handlers.vm));
  ZLOG_INFO("CtxtCore: Registering Timer event handler");
  Check("EndvatRegisterTimerEventHandler", library.EndvatRegisterTimerEventHandler(handlers.timer));
  ZLOG_INFO("CtxtCore: Registering Network event handler");
  Check("EndvatRegisterNetworkEventHandler", library.EndvatRegisterNetworkEventHandler(handlers.network));
  ZLOG_INFO("CtxtCore: Registering system event handler");
  Check("EndvatRegisterSystemEventHandler", library.EndvatRegisterSystemEventHandler(handlers.system));
  ZLOG_INFO("CtxtCore: Registering Mux event handler");
  Check("EndvatRegisterMuxEventHandler", library.EndvatRegisterMuxEventHandler(handlers.mux));
  Check("EndvatRegisterErrorHandler", library.EndvatRegisterErrorHandler(handlers.error));
  Check("EndvatRegisterPanicHandler", library.EndvatRegisterPanicHandler(handlers.panic));
}

}  // namespace

void InitializeEndvat(std::shared_ptr<IEndvatLib> library, const std::string& listen_port,
                      const std::string& worker_threads, const std::string& max_events_per_vm,
                      const EndvatHandlers& handlers) {
  if (listen_port.empty()) throw CtxtInvalidParameterError("listenPort", "Need a valid listenPort");
  SetEndvatLib(library);
  ZLOG_INFO("CtxtCore: Initializing Context library");
  try {
    InitializeLibrary(*library, listen_port, worker_threads, max_events_per_vm, handlers);
  } catch (const EndvatApiError& error) {
    ZLOG_CTX_ERROR(180, "CtxtCore: Failed to initialize Context library: %s, unloading library",
                   error.what());
    const uint32_t status = library->EndvatLibUnload();
    if (status != ENDVAT_SUCCESS)
      ZLOG_WARN("CtxtCore: Failed to unload Context library, error: %s", EndvatUtil::ErrorName(status));
    throw;
  } catch (...) {
    ZLOG_CTX_ERROR(180, "CtxtCore: Unhandled exception in Context library initialization");
    throw;
  }
  ZLOG_INFO("CtxtCore: Context library initialized successfully");
}

void UnloadEndvat() { Check("EndvatLibUnload", EndvatLib()->EndvatLibUnload()); }

}  // namespace Ctxt
