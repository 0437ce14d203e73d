// The library's exported functions: each fills the question and asks it.

#include <cstring>

#include "sim/guest/library/endvat_library.h"
#include "sim/guest/library/socket_link.h"

#define EXPORT extern "C" __attribute__((visibility("default"))) ENDVAT_STATUS

namespace {

using zem::sim::guest::EndvatLibrary;
using zem::sim::guest::Operation;
using zem::sim::guest::Question;
using Handlers = EndvatLibrary::Handlers;
using Needs = EndvatLibrary::Needs;

EndvatLibrary& Library() {
  static EndvatLibrary library([](const std::string& port, uint32_t timeout_ms) {
    return std::make_unique<zem::sim::guest::SocketLink>(zem::sim::guest::MuxSocketPath(port), timeout_ms);
  });
  return library;
}

Question Of(Operation operation, uint32_t kind = 0, uint64_t number = 0, uint64_t number2 = 0) {
  Question question;
  question.operation = operation;
  question.kind = kind;
  question.number = number;
  question.number2 = number2;
  return question;
}

}  // namespace

EXPORT EndvatLibInit(uint32_t version, const char* const* keys, const char* const* values,
                     ENDVAT_LIB_INFO* out) {
  return Library().Init(version, keys, values, out);
}
EXPORT EndvatRegisterVMEventHandler(ENDVAT_VM_HANDLER handler) {
  return Library().Register(&Handlers::vm, handler);
}
EXPORT EndvatRegisterTimerEventHandler(ENDVAT_TIMER_HANDLER handler) {
  return Library().Register(&Handlers::timer, handler);
}
EXPORT EndvatRegisterNetworkEventHandler(ENDVAT_NETWORK_HANDLER handler) {
  return Library().Register(&Handlers::network, handler);
}
EXPORT EndvatRegisterSystemEventHandler(ENDVAT_SYSTEM_HANDLER handler) {
  return Library().Register(&Handlers::system, handler);
}
EXPORT EndvatRegisterMuxEventHandler(ENDVAT_MUX_HANDLER handler) {
  return Library().Register(&Handlers::mux, handler);
}
EXPORT EndvatRegisterErrorHandler(ENDVAT_ERROR_HANDLER handler) {
  return Library().Register(&Handlers::error, handler);
}
EXPORT EndvatRegisterPanicHandler(ENDVAT_PANIC_HANDLER handler) {
  return Library().Register(&Handlers::panic, handler);
}
EXPORT EndvatEnableCallbacks(void) { return Library().EnableCallbacks(); }
EXPORT EndvatLibUnload(void) { return Library().Unload(); }

EXPORT EndvatGetVMId(void* buffer, uint32_t* length) {
  return Library().Query(Needs::kGuest, nullptr, Of(Operation::kVmId), buffer, length);
}
EXPORT EndvatQueryLogonSessionsEx(void* buffer, uint32_t* length) {
  return Library().Query(Needs::kGuest, nullptr, Of(Operation::kLogonSessions), buffer, length);
}
EXPORT EndvatGetSolutionId(void* buffer, uint32_t* length) {
  return Library().Query(Needs::kServiceVm, nullptr, Of(Operation::kSolutionId), buffer, length);
}
EXPORT EndvatGetHealthStatus(void* buffer, uint32_t* length) {
  return Library().Query(Needs::kHealth, nullptr, Of(Operation::kHealthStatus), buffer, length);
}
EXPORT EndvatQuerySystemInfo(uint32_t kind, void* buffer, uint32_t* length) {
  return Library().Query(Needs::kGuest, nullptr, Of(Operation::kSystemInfo, kind), buffer, length);
}
EXPORT EndvatQuerySessionInfo(uint32_t sessionId, uint32_t kind, void* buffer, uint32_t* length) {
  return Library().Query(Needs::kGuest, nullptr, Of(Operation::kSessionInfo, kind, sessionId), buffer,
                         length);
}
EXPORT EndvatQueryProcessInfo(const ENDVAT_PROCESS_ID* process, uint32_t kind, void* buffer,
                              uint32_t* length) {
  if (process == nullptr) return ENDVAT_ERROR_INVALID_POINTER;
  ENDVAT_PROCESS_ID id;  // the caller's may be unaligned
  std::memcpy(&id, process, sizeof(id));
  return Library().Query(Needs::kGuest, nullptr, Of(Operation::kProcessInfo, kind, id.pid, id.ctime), buffer,
                         length);
}
EXPORT EndvatNetworkGetEventInfo(ENDVAT_HANDLE handle, void* buffer, uint32_t* length) {
  return Library().Query(Needs::kNetworkEvent, handle, Of(Operation::kNetworkEvent), buffer, length);
}
EXPORT EndvatQueryNetworkEventInformation(ENDVAT_HANDLE handle, uint32_t kind, void* buffer,
                                          uint32_t* length) {
  return Library().Query(Needs::kNetworkEvent, handle, Of(Operation::kNetworkEventInformation, kind), buffer,
                         length);
}
EXPORT EndvatQuerySystemEventInformation(ENDVAT_HANDLE handle, uint32_t kind, void* buffer,
                                         uint32_t* length) {
  return Library().Query(Needs::kEvent, handle, Of(Operation::kSystemEventInformation, kind), buffer, length);
}
EXPORT EndvatQuerySidInfo(ENDVAT_HANDLE handle, const char* sid, void* buffer, uint32_t* length) {
  if (sid == nullptr) return ENDVAT_ERROR_INVALID_POINTER;
  Question question = Of(Operation::kSidInfo);
  question.text = sid;
  return Library().Query(Needs::kEvent, handle, std::move(question), buffer, length);
}
EXPORT EndvatLinuxQueryUidInfo(ENDVAT_HANDLE handle, uint32_t uid, void* buffer, uint32_t* length) {
  return Library().Query(Needs::kEvent, handle, Of(Operation::kUidInfo, 0, uid), buffer, length);
}
EXPORT EndvatLinuxQueryGidInfo(ENDVAT_HANDLE, uint32_t, void*, uint32_t*) {
  return ENDVAT_ERROR_NOT_SUPPORTED;
}
EXPORT EndvatQueryRegistry(ENDVAT_HANDLE, const char*, const char*, void*, uint32_t*) {
  return ENDVAT_ERROR_NOT_SUPPORTED;
}
EXPORT EndvatFileGetName(ENDVAT_HANDLE, void*, uint32_t*) { return ENDVAT_ERROR_NOT_SUPPORTED; }

EXPORT EndvatSetVMData(ENDVAT_HANDLE handle, void* data) { return Library().SetData(handle, data); }
EXPORT EndvatQueryConfiguration(ENDVAT_CONFIG* config, uint32_t* size) {
  if (config == nullptr || size == nullptr) return ENDVAT_ERROR_INVALID_POINTER;
  if (*size < sizeof(*config)) return ENDVAT_ERROR_BUFFER_TOO_SMALL;
  *size = sizeof(*config);
  *config = {};
  uint64_t mask = 0;
  const ENDVAT_STATUS status = Library().GetMask(&mask);
  config->eventsMask = mask;
  return status;
}
EXPORT EndvatSetConfiguration(const ENDVAT_CONFIG* config) {
  return config == nullptr ? ENDVAT_ERROR_INVALID_POINTER : Library().SetMask(config->eventsMask);
}
EXPORT EndvatConfigureMux(const void* buffer, uint32_t length) {
  return Library().ConfigureMux(buffer, length);
}
