#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// The guest event library, "libEndvat.so": events of the host's guests and questions about them.  Loaded at
/// run time; these declarations give the types, README.md the layout of each buffer.
///
/// Callbacks run on threads of the library.  Those of one guest never overlap and keep their order.  A
/// question without a handle concerns the guest of the callback in which it is asked.

typedef uint32_t ENDVAT_STATUS;
typedef void* ENDVAT_HANDLE;

#define ENDVAT_SUCCESS 0u
#define ENDVAT_ERROR_ALREADY_SET 1u
#define ENDVAT_ERROR_INVALID_HANDLE 2u
#define ENDVAT_ERROR_OUT_OF_RANGE 3u
#define ENDVAT_ERROR_TIMEOUT 4u
#define ENDVAT_ERROR_VM_DISCONNECTED 5u
#define ENDVAT_ERROR_UNSUCCESSFUL 6u
#define ENDVAT_ERROR_INVALID_SEEK_POS 7u
#define ENDVAT_ERROR_NOT_INITIALIZED 8u
#define ENDVAT_ERROR_REQ_VER_TOO_OLD 9u
#define ENDVAT_ERROR_REQ_VER_TOO_NEW 10u
#define ENDVAT_ERROR_INVALID_POINTER 11u
#define ENDVAT_ERROR_INVALID_PARAMETER 12u
#define ENDVAT_ERROR_BUFFER_TOO_SMALL 13u
#define ENDVAT_ERROR_WRONG_CONTEXT 14u
#define ENDVAT_ERROR_INVALID_CONFIG 15u
#define ENDVAT_ERROR_ODS_BAD_MAX_PAUSE 16u
#define ENDVAT_ERROR_ODS_WRONG_CONTEXT 17u
#define ENDVAT_ERROR_ODS_UNKNOWN_FLAG 18u
#define ENDVAT_ERROR_INVALID_PATH 19u
#define ENDVAT_ERROR_ACCESS_DENIED 20u
#define ENDVAT_ERROR_NO_MEMORY 21u
#define ENDVAT_ERROR_DISK_FULL 22u
#define ENDVAT_ERROR_WRONG_GUEST_OS 23u
#define ENDVAT_ERROR_NOT_SUPPORTED 24u
#define ENDVAT_ERROR_FILE_SYSTEM_ERROR 25u
#define ENDVAT_ERROR_EVENT_TERMINATED 26u
#define ENDVAT_ERROR_LOCK_CONFLICT 27u
#define ENDVAT_ERROR_NOT_FOUND 28u
#define ENDVAT_ERROR_ALREADY_UNLOADED 29u
#define ENDVAT_ERROR_WRONG_CALL_ORDER 30u
#define ENDVAT_ERROR_PROCESS_IS_TERMINATING 31u
#define ENDVAT_ERROR_PANIC 256u
#define ENDVAT_ERROR_ENTRY_NOT_FOUND 257u
#define ENDVAT_ERROR_GUEST_NOT_SUPPORTED 258u
#define ENDVAT_ERROR_GUEST_NOT_READY 259u
#define ENDVAT_ERROR_RESOURCE_NOT_FOUND 260u

#define ENDVAT_MUX_ERROR_PARSING_CONFIG 0x10002u
#define ENDVAT_MUX_ERROR_VMCI_SOCKET 0x10003u
#define ENDVAT_MUX_ERROR_UNKNOWN 0x10004u
#define ENDVAT_MUX_ERROR_UNIX_SOCKET 0x10005u

/// The kinds of EndvatQuerySystemInfo.
#define ENDVAT_SYSTEM_INFO_OS 3u
#define ENDVAT_SYSTEM_INFO_INTROSPECTION 4u
#define ENDVAT_SYSTEM_INFO_OS_EX 5u
/// The kinds of EndvatQueryNetworkEventInformation.
#define ENDVAT_NETWORK_EVENT_PROCESS 4u
#define ENDVAT_NETWORK_EVENT_PROCESS_HASH 8u
/// The kinds of EndvatQueryProcessInfo.
#define ENDVAT_PROCESS_HASH 4u
#define ENDVAT_PROCESS_GROUPS 5u
/// The kind of EndvatQuerySessionInfo.
#define ENDVAT_SESSION_GROUPS 1u
/// The kind of EndvatQuerySystemEventInformation.
#define ENDVAT_SYSTEM_EVENT_SESSION 2u

typedef struct {
  uint64_t pid;
  uint64_t ctime;
} ENDVAT_PROCESS_ID;

#pragma pack(push, 1)
typedef struct {
  uint64_t eventsMask;
  uint8_t reserved[10];
} ENDVAT_CONFIG;
#pragma pack(pop)

typedef struct {
  uint32_t version;
  char build[60];
} ENDVAT_LIB_INFO;

/// `type`: 0 power-on, 1 power-off.
typedef void (*ENDVAT_VM_HANDLER)(uint32_t type, ENDVAT_HANDLE handle, void* vmData);
/// `type`: 0 before a connect, 1 connect, 2 disconnect, 3 listen, 4 and 5 end of a listen.  Returns the
/// verdict, 1 to let the event pass.
typedef uint32_t (*ENDVAT_NETWORK_HANDLER)(uint32_t type, ENDVAT_HANDLE handle, void* vmData);
/// `type`: 0 logon, 1 logoff, 2 connect, 3 disconnect, 4 and 5 terminal login and logout, 6 and 7 those of a
/// pseudo terminal.
typedef void (*ENDVAT_SYSTEM_HANDLER)(uint32_t type, ENDVAT_HANDLE handle, void* vmData);
typedef void (*ENDVAT_TIMER_HANDLER)(void* vmData);
/// `type`: 0 multiplexer connected, 1 disconnected, 2 health report ready, 3 service VM connected, 4 service
/// VM disconnected.
typedef void (*ENDVAT_MUX_HANDLER)(uint32_t type);
typedef void (*ENDVAT_ERROR_HANDLER)(ENDVAT_STATUS status);
typedef void (*ENDVAT_PANIC_HANDLER)(void);

/// `keys` ends with a null; `values` runs beside it.
ENDVAT_STATUS EndvatLibInit(uint32_t version, const char* const* keys, const char* const* values,
                            ENDVAT_LIB_INFO* out);
ENDVAT_STATUS EndvatRegisterVMEventHandler(ENDVAT_VM_HANDLER handler);
ENDVAT_STATUS EndvatRegisterTimerEventHandler(ENDVAT_TIMER_HANDLER handler);
ENDVAT_STATUS EndvatRegisterNetworkEventHandler(ENDVAT_NETWORK_HANDLER handler);
ENDVAT_STATUS EndvatRegisterSystemEventHandler(ENDVAT_SYSTEM_HANDLER handler);
ENDVAT_STATUS EndvatRegisterMuxEventHandler(ENDVAT_MUX_HANDLER handler);
ENDVAT_STATUS EndvatRegisterErrorHandler(ENDVAT_ERROR_HANDLER handler);
ENDVAT_STATUS EndvatRegisterPanicHandler(ENDVAT_PANIC_HANDLER handler);
ENDVAT_STATUS EndvatEnableCallbacks(void);
/// Returns after the callbacks that run have ended; none starts afterwards.
ENDVAT_STATUS EndvatLibUnload(void);

/// `length` holds the buffer's size before the call; afterwards the size of what was written, or of what is
/// needed when the status is ENDVAT_ERROR_BUFFER_TOO_SMALL.
ENDVAT_STATUS EndvatGetVMId(void* buffer, uint32_t* length);
ENDVAT_STATUS EndvatQueryLogonSessionsEx(void* buffer, uint32_t* length);
ENDVAT_STATUS EndvatGetSolutionId(void* buffer, uint32_t* length);
ENDVAT_STATUS EndvatGetHealthStatus(void* buffer, uint32_t* length);
ENDVAT_STATUS EndvatQuerySystemInfo(uint32_t kind, void* buffer, uint32_t* length);
ENDVAT_STATUS EndvatQuerySessionInfo(uint32_t sessionId, uint32_t kind, void* buffer, uint32_t* length);
ENDVAT_STATUS EndvatQueryProcessInfo(const ENDVAT_PROCESS_ID* process, uint32_t kind, void* buffer,
                                     uint32_t* length);
ENDVAT_STATUS EndvatNetworkGetEventInfo(ENDVAT_HANDLE handle, void* buffer, uint32_t* length);
ENDVAT_STATUS EndvatQueryNetworkEventInformation(ENDVAT_HANDLE handle, uint32_t kind, void* buffer,
                                                 uint32_t* length);
ENDVAT_STATUS EndvatQuerySystemEventInformation(ENDVAT_HANDLE handle, uint32_t kind, void* buffer,
                                                uint32_t* length);
/// `sid` is ASCII and ends with a zero.
ENDVAT_STATUS EndvatQuerySidInfo(ENDVAT_HANDLE handle, const char* sid, void* buffer, uint32_t* length);
ENDVAT_STATUS EndvatLinuxQueryUidInfo(ENDVAT_HANDLE handle, uint32_t uid, void* buffer, uint32_t* length);
ENDVAT_STATUS EndvatLinuxQueryGidInfo(ENDVAT_HANDLE handle, uint32_t gid, void* buffer, uint32_t* length);
ENDVAT_STATUS EndvatQueryRegistry(ENDVAT_HANDLE handle, const char* key, const char* value, void* buffer,
                                  uint32_t* length);
ENDVAT_STATUS EndvatFileGetName(ENDVAT_HANDLE handle, void* buffer, uint32_t* length);

/// What later callbacks of the guest get as `vmData`.
ENDVAT_STATUS EndvatSetVMData(ENDVAT_HANDLE handle, void* data);
ENDVAT_STATUS EndvatQueryConfiguration(ENDVAT_CONFIG* config, uint32_t* size);
ENDVAT_STATUS EndvatSetConfiguration(const ENDVAT_CONFIG* config);
/// Passes a configuration to the multiplexer.  From any thread; 0 or an ENDVAT_MUX_ERROR.
ENDVAT_STATUS EndvatConfigureMux(const void* buffer, uint32_t length);

#ifdef __cplusplus
}
#endif
