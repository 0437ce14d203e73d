#pragma once

#include <memory>

#include "platform/endvat/endvat.h"

namespace zem {
class DynamicLibrary;
}

namespace Ctxt {

/// The guest event library, behind an interface so that a test can put its own in place.
///
/// Threads: as of the library.
class IEndvatLib {
 public:
  virtual ~IEndvatLib() = default;

  virtual ENDVAT_STATUS EndvatGetSolutionId(void* buffer, uint32_t* length) = 0;
  virtual ENDVAT_STATUS EndvatGetHealthStatus(void* buffer, uint32_t* length) = 0;
  virtual ENDVAT_STATUS EndvatQueryConfiguration(ENDVAT_CONFIG* config, uint32_t* size) = 0;
  virtual ENDVAT_STATUS EndvatSetConfiguration(const ENDVAT_CONFIG* config) = 0;
  virtual ENDVAT_STATUS EndvatLibInit(uint32_t version, const char* const* keys, const char* const* values,
                                      ENDVAT_LIB_INFO* out) = 0;
  virtual ENDVAT_STATUS EndvatRegisterNetworkEventHandler(ENDVAT_NETWORK_HANDLER handler) = 0;
  virtual ENDVAT_STATUS EndvatRegisterTimerEventHandler(ENDVAT_TIMER_HANDLER handler) = 0;
  virtual ENDVAT_STATUS EndvatRegisterVMEventHandler(ENDVAT_VM_HANDLER handler) = 0;
  virtual ENDVAT_STATUS EndvatRegisterErrorHandler(ENDVAT_ERROR_HANDLER handler) = 0;
  virtual ENDVAT_STATUS EndvatRegisterMuxEventHandler(ENDVAT_MUX_HANDLER handler) = 0;
  virtual ENDVAT_STATUS EndvatRegisterPanicHandler(ENDVAT_PANIC_HANDLER handler) = 0;
  virtual ENDVAT_STATUS EndvatRegisterSystemEventHandler(ENDVAT_SYSTEM_HANDLER handler) = 0;
  virtual ENDVAT_STATUS EndvatEnableCallbacks() = 0;
  virtual ENDVAT_STATUS EndvatLibUnload() = 0;
  virtual ENDVAT_STATUS EndvatQuerySystemInfo(uint32_t kind, void* buffer, uint32_t* length) = 0;
  virtual ENDVAT_STATUS EndvatQuerySystemEventInformation(ENDVAT_HANDLE handle, uint32_t kind, void* buffer,
                                                          uint32_t* length) = 0;
  virtual ENDVAT_STATUS EndvatGetVMId(void* buffer, uint32_t* length) = 0;
  virtual ENDVAT_STATUS EndvatQueryRegistry(ENDVAT_HANDLE handle, const char* key, const char* value,
                                            void* buffer, uint32_t* length) = 0;
  virtual ENDVAT_STATUS EndvatFileGetName(ENDVAT_HANDLE handle, void* buffer, uint32_t* length) = 0;
  virtual ENDVAT_STATUS EndvatQuerySidInfo(ENDVAT_HANDLE handle, const char* sid, void* buffer,
                                           uint32_t* length) = 0;
  virtual ENDVAT_STATUS EndvatLinuxQueryUidInfo(ENDVAT_HANDLE handle, uint32_t uid, void* buffer,
                                                uint32_t* length) = 0;
  virtual ENDVAT_STATUS EndvatLinuxQueryGidInfo(ENDVAT_HANDLE handle, uint32_t gid, void* buffer,
                                                uint32_t* length) = 0;
  virtual ENDVAT_STATUS EndvatSetVMData(ENDVAT_HANDLE handle, void* data) = 0;
  virtual ENDVAT_STATUS EndvatNetworkGetEventInfo(ENDVAT_HANDLE handle, void* buffer, uint32_t* length) = 0;
  virtual ENDVAT_STATUS EndvatQueryProcessInfo(const ENDVAT_PROCESS_ID* process, uint32_t kind, void* buffer,
                                               uint32_t* length) = 0;
  virtual ENDVAT_STATUS EndvatQuerySessionInfo(uint32_t session, uint32_t kind, void* buffer,
                                               uint32_t* length) = 0;
  virtual ENDVAT_STATUS EndvatQueryNetworkEventInformation(ENDVAT_HANDLE handle, uint32_t kind, void* buffer,
                                                           uint32_t* length) = 0;
  virtual ENDVAT_STATUS EndvatQueryLogonSessionsEx(void* buffer, uint32_t* length) = 0;
  /// Behind the others, which have their places.
  virtual ENDVAT_STATUS EndvatConfigureMux(const void* buffer, uint32_t length) = 0;
};

/// The library itself, loaded when it is initialised.  A library or a function that is not there answers
/// ENDVAT_ERROR_RESOURCE_NOT_FOUND.
std::shared_ptr<IEndvatLib> MakeEndvatLib();

/// The library of the process.  Set before it is initialised; never null: without one, every call answers
/// ENDVAT_ERROR_NOT_INITIALIZED.
std::shared_ptr<IEndvatLib> EndvatLib();
void SetEndvatLib(std::shared_ptr<IEndvatLib> library);

/// While closed, EndvatLib answers every question with ENDVAT_ERROR_VM_DISCONNECTED without a call: the
/// library is on its way out.
void CloseEndvatQueries(bool closed);
bool EndvatQueriesClosed();

}  // namespace Ctxt
