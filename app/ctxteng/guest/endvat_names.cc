#include "app/ctxteng/guest/endvat_names.h"

#include <array>
#include <span>

#include "framework/log/log.h"
#include "platform/endvat/endvat.h"

namespace Ctxt::EndvatUtil {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

struct Name {
  uint32_t status;
  const char* name;
};

#define ENDVAT_NAME(status) \
  { status, #status }
constexpr Name kNames[] = {
    ENDVAT_NAME(ENDVAT_SUCCESS),
    ENDVAT_NAME(ENDVAT_ERROR_ALREADY_SET),
    ENDVAT_NAME(ENDVAT_ERROR_INVALID_HANDLE),
    ENDVAT_NAME(ENDVAT_ERROR_OUT_OF_RANGE),
    ENDVAT_NAME(ENDVAT_ERROR_TIMEOUT),
    ENDVAT_NAME(ENDVAT_ERROR_VM_DISCONNECTED),
    ENDVAT_NAME(ENDVAT_ERROR_UNSUCCESSFUL),
    ENDVAT_NAME(ENDVAT_ERROR_INVALID_SEEK_POS),
    ENDVAT_NAME(ENDVAT_ERROR_NOT_INITIALIZED),
    ENDVAT_NAME(ENDVAT_ERROR_REQ_VER_TOO_OLD),
    ENDVAT_NAME(ENDVAT_ERROR_REQ_VER_TOO_NEW),
    ENDVAT_NAME(ENDVAT_ERROR_INVALID_POINTER),
    ENDVAT_NAME(ENDVAT_ERROR_INVALID_PARAMETER),
    ENDVAT_NAME(ENDVAT_ERROR_BUFFER_TOO_SMALL),
    ENDVAT_NAME(ENDVAT_ERROR_WRONG_CONTEXT),
    ENDVAT_NAME(ENDVAT_ERROR_INVALID_CONFIG),
    ENDVAT_NAME(ENDVAT_ERROR_ODS_BAD_MAX_PAUSE),
    ENDVAT_NAME(ENDVAT_ERROR_ODS_WRONG_CONTEXT),
    ENDVAT_NAME(ENDVAT_ERROR_ODS_UNKNOWN_FLAG),
    ENDVAT_NAME(ENDVAT_ERROR_INVALID_PATH),
    ENDVAT_NAME(ENDVAT_ERROR_ACCESS_DENIED),
    ENDVAT_NAME(ENDVAT_ERROR_NO_MEMORY),
    ENDVAT_NAME(ENDVAT_ERROR_DISK_FULL),
    ENDVAT_NAME(ENDVAT_ERROR_WRONG_GUEST_OS),
    ENDVAT_NAME(ENDVAT_ERROR_NOT_SUPPORTED),
    ENDVAT_NAME(ENDVAT_ERROR_FILE_SYSTEM_ERROR),
    ENDVAT_NAME(ENDVAT_ERROR_EVENT_TERMINATED),
    ENDVAT_NAME(ENDVAT_ERROR_LOCK_CONFLICT),
    ENDVAT_NAME(ENDVAT_ERROR_NOT_FOUND),
    ENDVAT_NAME(ENDVAT_ERROR_ALREADY_UNLOADED),
    ENDVAT_NAME(ENDVAT_ERROR_WRONG_CALL_ORDER),
    ENDVAT_NAME(ENDVAT_ERROR_PROCESS_IS_TERMINATING),
    ENDVAT_NAME(ENDVAT_ERROR_PANIC),
    ENDVAT_NAME(ENDVAT_ERROR_ENTRY_NOT_FOUND),
    ENDVAT_NAME(ENDVAT_ERROR_GUEST_NOT_SUPPORTED),
    ENDVAT_NAME(ENDVAT_ERROR_GUEST_NOT_READY),
    ENDVAT_NAME(ENDVAT_ERROR_RESOURCE_NOT_FOUND),
};
constexpr Name kMuxNames[] = {
    ENDVAT_NAME(ENDVAT_MUX_ERROR_PARSING_CONFIG),
    ENDVAT_NAME(ENDVAT_MUX_ERROR_VMCI_SOCKET),
    ENDVAT_NAME(ENDVAT_MUX_ERROR_UNKNOWN),
    ENDVAT_NAME(ENDVAT_MUX_ERROR_UNIX_SOCKET),
};
#undef ENDVAT_NAME

const char* Find(std::span<const Name> names, uint32_t status) {
  for (const Name& row : names) {
    if (row.status == status) return row.name;
  }
  return nullptr;
}

}  // namespace

const char* ErrorName(uint32_t status) {
  if (const char* const name = Find(kNames, status)) return name;
  ZLOG_CTX_ERROR(1051, "EndvatUtil: Error: Unknown error code: 0x%x", status);
  return "*** Unknown ENDVAT error code";
}

const char* MuxErrorName(uint32_t status) {
  if (const char* const name = Find(kMuxNames, status)) return name;
  ZLOG_CTX_ERROR(1052, "EndvatUtil: Error: Unknown mux error code: 0x%x", status);
  return "*** Unknown EndvatMux error code";
}

}  // namespace Ctxt::EndvatUtil
