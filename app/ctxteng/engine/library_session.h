#pragma once

#include <memory>
#include <string>

#include "platform/endvat/endvat.h"

namespace Ctxt {

class IEndvatLib;

/// The handlers that the engine registers with the guest event library.
struct EndvatHandlers {
  ENDVAT_VM_HANDLER vm;
  ENDVAT_TIMER_HANDLER timer;
  ENDVAT_NETWORK_HANDLER network;
  ENDVAT_SYSTEM_HANDLER system;
  ENDVAT_MUX_HANDLER mux;
  ENDVAT_ERROR_HANDLER error;
  ENDVAT_PANIC_HANDLER panic;
};

/// Makes `library` the process's and initialises it; callbacks stay off.  Throws CtxtInvalidParameterError
/// without a port, and EndvatApiError when a call fails, after it has unloaded the library.
void InitializeEndvat(std::shared_ptr<IEndvatLib> library, const std::string& listen_port,
                      const std::string& worker_threads, const std::string& max_events_per_vm,
                      const EndvatHandlers& handlers);

/// Throws EndvatApiError.
void UnloadEndvat();

}  // namespace Ctxt
