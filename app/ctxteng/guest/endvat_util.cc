#include "app/ctxteng/guest/endvat_util.h"

#include <algorithm>
#include <array>
#include <cinttypes>

#include "app/ctxteng/guest/endvat_lib.h"
#include "framework/log/log.h"

namespace Ctxt::EndvatUtil {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr size_t kOsBlockSize = 100;
constexpr uint64_t kHostTypeKey = 1;
constexpr int kMuxRetries = 3;

// What is logged when the call for the size, the call for the content, or the memory fails; %s is the error.
struct QueryTexts {
  const char* first;
  const char* second;
  const char* allocation;
};

constexpr QueryTexts kNetworkInfo{"EndvatUtil: Failed to fetch networkInfo buffer length for VM,error: %s",
                                  "EndvatUtil: Failed to fetch networkInfo for VM, error %s",
                                  "EndvatUtil: Failed to allocate memory for network info"};
constexpr QueryTexts kEventProcessHash{
    "EndvatUtil: Failed to fetch network event info - processHashInfo buffer length, error: %s",
    "EndvatUtil: Failed to fetch network event info - processHashInfo, error: %s",
    "EndvatUtil: Failed to allocate memory for network event info - processHashInfo"};
constexpr QueryTexts kSessionGroupsOfEvent{
    "EndvatUtil: Failed to fetch network event info - processGroupInfo buffer length, error: %s",
    "EndvatUtil: Failed to fetch network event info - processGroupInfo, error: %s",
    "EndvatUtil: Failed to allocate memory for network event info - processGroupInfo"};
constexpr QueryTexts kLogonSessions{
    "EndvatUtil: Failed to fetch network event info - logonSessionListEx buffer length, error: %s",
    "EndvatUtil: Failed to fetch network event info - logonSessionListEx, error: %s",
    "EndvatUtil: Failed to allocate memory for logonSessionListEx"};
constexpr QueryTexts kEventProcessInfo{
    "EndvatUtil: Failed to fetch network event info - processInfo buffer length, error: %s",
    "EndvatUtil: Failed to fetch network event info - processInfo, error: %s",
    "EndvatUtil: Failed to allocate memory for network event info - processInfo"};
constexpr QueryTexts kProcessHash{"EndvatUtil: Failed to fetch processHashInfo buffer length, error: %s",
                                  "EndvatUtil: Failed to fetch processHashInfo, error: %s",
                                  "EndvatUtil: Failed to allocate memory for processHashInfo"};
constexpr QueryTexts kProcessGroups{"EndvatUtil: Failed to fetch processGroupInfo buffer length, error: %s",
                                    "EndvatUtil: Failed to fetch processGroupInfo, error: %s",
                                    "EndvatUtil: Failed to allocate memory for processGroupInfo"};
constexpr QueryTexts kSessionGroupsAtLogin{"EndvatUtil: Failed to query session group info, status: %s",
                                           "EndvatUtil: Failed to query session group info, status: %s",
                                           "EndvatUtil: Failed to allocate memory for session group info"};
constexpr QueryTexts kSystemEvent{"EndvatUtil: Failed to fetch systemEventInfo, error: %s",
                                  "EndvatUtil: Failed to fetch systemEventInfo, error: %s,",
                                  "EndvatUtil: Insufficient memory to allocate systemEventInfo"};
constexpr QueryTexts kVmId{"EndvatUtil: Failed to get VM Id, error: %s",
                           "EndvatUtil: Failed to get VM Id, error: %s",
                           "EndvatUtil: Failed to allocate memory for VM Id"};
constexpr QueryTexts kHealthStatus{"EndvatUtil: Failed to get health status, error: %s",
                                   "EndvatUtil: Failed to get health status, error: %s",
                                   "EndvatUtil: Failed to allocate memory for health status"};
constexpr QueryTexts kOsInfo{"EndvatUtil: Failed to get OS info, error: %s",
                             "EndvatUtil: Failed to get OS info, error: %s",
                             "EndvatUtil: Failed to allocate memory for OS info"};
constexpr QueryTexts kGiInfo{"EndvatUtil: Failed to get GI info, error: %s",
                             "EndvatUtil: Failed to get GI info, error: %s",
                             "EndvatUtil: Failed to allocate memory for GI info"};
constexpr QueryTexts kHostType{"EndvatUtil: Failed to get host type, error: %s",
                               "EndvatUtil: Failed to get host type, error: %s",
                               "EndvatUtil: Failed to allocate memory for host type"};

enum class Stage { kFirst, kSecond, kAllocation };

// Asks for the size, then for the content.  `log` is called with the stage that failed; a failure of the
// second call leaves the empty buffer in `out`.
template <class Call, class Log>
uint32_t TwoCalls(LibraryBuffer* out, const Call& call, const Log& log) {
  out->Clear();
  if (EndvatQueriesClosed()) return ENDVAT_ERROR_VM_DISCONNECTED;
  const auto library = EndvatLib();
  uint32_t length = 0;
  uint32_t status = call(*library, nullptr, &length);
  if (status != ENDVAT_ERROR_BUFFER_TOO_SMALL) {
    log(Stage::kFirst, status, length);
    return status;
  }
  if (!out->Allocate(length)) {
    log(Stage::kAllocation, ENDVAT_ERROR_NO_MEMORY, length);
    return ENDVAT_ERROR_NO_MEMORY;
  }
  status = call(*library, out->data(), &length);
  if (status != ENDVAT_SUCCESS) log(Stage::kSecond, status, length);
  return status;
}

void LogFailure(const QueryTexts& texts, Stage stage, uint32_t status) {
  switch (stage) {
    case Stage::kFirst:
      ZLOG_CTX_ERROR(1053, texts.first, ErrorName(status));
      break;
    case Stage::kSecond:
      ZLOG_CTX_ERROR(1055, texts.second, ErrorName(status));
      break;
    case Stage::kAllocation:
      ZLOG_CTX_ERROR(1054, "%s", texts.allocation);
      break;
  }
}

template <class Call>
uint32_t Query(const QueryTexts& texts, LibraryBuffer* out, const Call& call) {
  return TwoCalls(out, call,
                  [&texts](Stage stage, uint32_t status, uint32_t) { LogFailure(texts, stage, status); });
}

uint32_t QuerySystemInfo(uint32_t kind, const QueryTexts& texts, const char* old_agent, LibraryBuffer* out) {
  return TwoCalls(
      out,
      [kind](IEndvatLib& library, void* buffer, uint32_t* length) {
        return library.EndvatQuerySystemInfo(kind, buffer, length);
      },
      [&](Stage stage, uint32_t status, uint32_t) {
        const bool from_old_agent = stage == Stage::kFirst && status == ENDVAT_ERROR_NOT_SUPPORTED;
        if (old_agent != nullptr && from_old_agent) {
          ZLOG_INFO(old_agent, ErrorName(status));
          return;
        }
        LogFailure(texts, stage, status);
      });
}

// A library that calls it a success to have nothing has not answered.
uint32_t Answered(uint32_t status, const LibraryBuffer& buffer) {
  return status == ENDVAT_SUCCESS && !buffer ? ENDVAT_ERROR_UNSUCCESSFUL : status;
}

uint32_t TakeUser(uint32_t status, const LibraryBuffer& buffer, std::string* name, std::string* domain) {
  if (Answered(status, buffer) != ENDVAT_SUCCESS) return Answered(status, buffer);
  *name = buffer.TextAt(0);
  *domain = buffer.TextAt(12);
  return ENDVAT_SUCCESS;
}

}  // namespace

uint32_t GetNetworkInfo(ENDVAT_HANDLE handle, LibraryBuffer* out) {
  return Query(kNetworkInfo, out, [handle](IEndvatLib& library, void* buffer, uint32_t* length) {
    return library.EndvatNetworkGetEventInfo(handle, buffer, length);
  });
}

uint32_t GetEventProcessInfo(ENDVAT_HANDLE handle, LibraryBuffer* out) {
  return Query(kEventProcessInfo, out, [handle](IEndvatLib& library, void* buffer, uint32_t* length) {
    return library.EndvatQueryNetworkEventInformation(handle, ENDVAT_NETWORK_EVENT_PROCESS, buffer, length);
  });
}

uint32_t GetEventProcessHash(ENDVAT_HANDLE handle, LibraryBuffer* out) {
  return Query(kEventProcessHash, out, [handle](IEndvatLib& library, void* buffer, uint32_t* length) {
    return library.EndvatQueryNetworkEventInformation(handle, ENDVAT_NETWORK_EVENT_PROCESS_HASH, buffer,
                                                      length);
  });
}

uint32_t GetProcessHash(const ENDVAT_PROCESS_ID& process, LibraryBuffer* out) {
  return Query(kProcessHash, out, [&process](IEndvatLib& library, void* buffer, uint32_t* length) {
    return library.EndvatQueryProcessInfo(&process, ENDVAT_PROCESS_HASH, buffer, length);
  });
}

uint32_t GetProcessGroups(const ENDVAT_PROCESS_ID& process, LibraryBuffer* out) {
  return Query(kProcessGroups, out, [&process](IEndvatLib& library, void* buffer, uint32_t* length) {
    return library.EndvatQueryProcessInfo(&process, ENDVAT_PROCESS_GROUPS, buffer, length);
  });
}

uint32_t GetSessionGroups(uint32_t session, bool at_login, LibraryBuffer* out) {
  return Query(at_login ? kSessionGroupsAtLogin : kSessionGroupsOfEvent, out,
               [session](IEndvatLib& library, void* buffer, uint32_t* length) {
                 return library.EndvatQuerySessionInfo(session, ENDVAT_SESSION_GROUPS, buffer, length);
               });
}

uint32_t GetLogonSessions(LibraryBuffer* out) {
  return Query(kLogonSessions, out, [](IEndvatLib& library, void* buffer, uint32_t* length) {
    return library.EndvatQueryLogonSessionsEx(buffer, length);
  });
}

uint32_t GetSystemEventInfo(ENDVAT_HANDLE handle, LibraryBuffer* out) {
  return Query(kSystemEvent, out, [handle](IEndvatLib& library, void* buffer, uint32_t* length) {
    return library.EndvatQuerySystemEventInformation(handle, ENDVAT_SYSTEM_EVENT_SESSION, buffer, length);
  });
}

uint32_t QueryOsInfo(LibraryBuffer* out) {
  const uint32_t status =
      QuerySystemInfo(ENDVAT_SYSTEM_INFO_OS, kOsInfo,
                      "EndvatUtil: EndvatQuerySystemInfo ENDVAT_SYSTEM_INFO_OS returned %s", out);
  if (status != ENDVAT_ERROR_NOT_SUPPORTED || *out) return status;
  ZLOG_INFO("EndvatUtil: Detected old thin agent from OS Info");
  if (!out->Allocate(kOsBlockSize)) return ENDVAT_ERROR_NO_MEMORY;
  out->data()[0] = 1;  // Windows
  return status;
}

uint32_t QueryGiInfo(LibraryBuffer* out) {
  const uint32_t status =
      QuerySystemInfo(ENDVAT_SYSTEM_INFO_INTROSPECTION, kGiInfo,
                      "EndvatUtil: EndvatQuerySystemInfo ENDVAT_SYSTEM_INFO_INTROSPECTION returned %s", out);
  if (status == ENDVAT_ERROR_NOT_SUPPORTED && !*out) {
    ZLOG_INFO("EndvatUtil: Detected old thin agent from GI Info");
  }
  return status;
}

uint32_t QueryHostType(bool* multi_session) {
  constexpr size_t kEntries = kOsBlockSize + 4;
  constexpr size_t kEntrySize = 16;
  LibraryBuffer buffer;
  const uint32_t status = QuerySystemInfo(ENDVAT_SYSTEM_INFO_OS_EX, kHostType, nullptr, &buffer);
  if (status != ENDVAT_SUCCESS) return status;
  const auto count = buffer.Number<uint32_t>(kOsBlockSize);
  for (size_t i = 0, at = kEntries; i < count && buffer.Has(at, kEntrySize); ++i, at += kEntrySize) {
    if (buffer.Number<uint64_t>(at) != kHostTypeKey) continue;
    const std::string_view value = buffer.BytesBehind(at + 8, 1);
    *multi_session = !value.empty() && value[0] == 1;
    break;
  }
  return status;
}

uint32_t GetVmId(std::string* bios_uuid, std::string* gcf_path) {
  constexpr size_t kIdSize = 16;
  LibraryBuffer buffer;
  const uint32_t status = Query(kVmId, &buffer, [](IEndvatLib& library, void* bytes, uint32_t* length) {
    return library.EndvatGetVMId(bytes, length);
  });
  if (status != ENDVAT_SUCCESS) return status;
  // An answer too short to hold an identity is no identity.
  if (!buffer.Has(0, kIdSize)) return ENDVAT_ERROR_UNSUCCESSFUL;
  bios_uuid->clear();
  for (const char byte : buffer.Bytes(0, kIdSize)) {
    constexpr const char* kDigits = "0123456789abcdef";
    *bios_uuid += kDigits[static_cast<uint8_t>(byte) >> 4];
    *bios_uuid += kDigits[static_cast<uint8_t>(byte) & 15];
  }
  const std::string_view path = buffer.Bytes(kIdSize, buffer.size());
  *gcf_path = path.substr(0, path.find('\0'));
  return status;
}

uint32_t QuerySidInfo(ENDVAT_HANDLE handle, const std::string& sid, std::string* name, std::string* domain) {
  LibraryBuffer buffer;
  const uint32_t status = TwoCalls(
      &buffer,
      [&](IEndvatLib& library, void* bytes, uint32_t* length) {
        return library.EndvatQuerySidInfo(handle, sid.c_str(), bytes, length);
      },
      [&sid](Stage stage, uint32_t error, uint32_t) {
        const int tag = stage == Stage::kFirst ? 1053 : stage == Stage::kSecond ? 1055 : 1054;
        ZLOG_CTX_ERROR(tag, "EndvatUtil: Failed to query sid info, error: %s sid: %s", ErrorName(error),
                       sid.c_str());
      });
  return TakeUser(status, buffer, name, domain);
}

uint32_t QueryUidInfo(ENDVAT_HANDLE handle, uint32_t uid, std::string* name, std::string* domain) {
  LibraryBuffer buffer;
  const uint32_t status = TwoCalls(
      &buffer,
      [&](IEndvatLib& library, void* bytes, uint32_t* length) {
        return library.EndvatLinuxQueryUidInfo(handle, uid, bytes, length);
      },
      [uid](Stage stage, uint32_t error, uint32_t) {
        const int tag = stage == Stage::kFirst ? 1053 : stage == Stage::kSecond ? 1055 : 1054;
        ZLOG_CTX_ERROR(tag, "EndvatUtil: Failed to query Linux uid info, error: %s uid: %u", ErrorName(error),
                       uid);
      });
  return TakeUser(status, buffer, name, domain);
}

uint32_t UpdateEventsMask(uint64_t mask, bool enable, bool exact) {
  if (EndvatQueriesClosed()) return ENDVAT_ERROR_VM_DISCONNECTED;
  const auto library = EndvatLib();
  ENDVAT_CONFIG config{};
  if (exact) {
    config.eventsMask = mask;
  } else {
    uint32_t size = sizeof(config);
    const uint32_t status = library->EndvatQueryConfiguration(&config, &size);
    if (status != ENDVAT_SUCCESS) {
      ZLOG_CTX_ERROR(1055, "EndvatUtil: Failed to get Endvat configuration, error: %s", ErrorName(status));
      return status;
    }
    const uint64_t original = config.eventsMask;
    if (enable) {
      ZLOG_INFO("EndvatUtil: Events mask to enable: 0x%lX, original mask: 0x%lX", mask, original);
      config.eventsMask = original | mask;
    } else {
      ZLOG_INFO("EndvatUtil: Events mask to disable: 0x%lX, original mask: 0x%lX", mask, original);
      config.eventsMask = original & ~mask;
    }
  }
  const uint64_t wanted = config.eventsMask;
  ZLOG_INFO("EndvatUtil: Setting endvat configuration, eventsMask: 0x%lX", wanted);
  const uint32_t status = library->EndvatSetConfiguration(&config);
  if (status != ENDVAT_SUCCESS)
    ZLOG_CTX_ERROR(1055, "EndvatUtil: Failed to set Endvat configuration, error: %s", ErrorName(status));
  return status;
}

uint32_t GetSolutionId(std::string* id) {
  LibraryBuffer buffer;
  const uint32_t status = TwoCalls(
      &buffer,
      [](IEndvatLib& library, void* bytes, uint32_t* length) {
        return library.EndvatGetSolutionId(bytes, length);
      },
      [](Stage stage, uint32_t error, uint32_t needed) {
        if (stage == Stage::kFirst) {
          ZLOG_CTX_ERROR(1053, "EndvatUtil: Failed to get Solution Id, bytes needed are: %u, error: %s",
                         needed, ErrorName(error));
        } else {
          ZLOG_CTX_ERROR(stage == Stage::kSecond ? 1055 : 1054,
                         "EndvatUtil: Failed to get Solution Id, error: %s", ErrorName(error));
        }
      });
  if (Answered(status, buffer) != ENDVAT_SUCCESS) return Answered(status, buffer);
  const std::string_view text = buffer.RawTextAt(0);
  *id = text.substr(0, text.find('\0'));
  ZLOG_INFO("EndvatUtil: Solution ID for MUX alarm: [%s]", id->c_str());
  return status;
}

uint32_t GetHealthStatus(std::string* text) {
  LibraryBuffer buffer;
  const uint32_t status =
      Query(kHealthStatus, &buffer, [](IEndvatLib& library, void* bytes, uint32_t* length) {
        return library.EndvatGetHealthStatus(bytes, length);
      });
  if (Answered(status, buffer) != ENDVAT_SUCCESS) return Answered(status, buffer);
  *text = buffer.RawTextAt(0);
  ZLOG_INFO("EndvatUtil: Context health status: [%s]", text->c_str());
  return status;
}

uint32_t ConfigureMux(const void* buffer, uint32_t length) {
  const auto library = EndvatLib();
  uint32_t status = library->EndvatConfigureMux(buffer, length);
  for (int retry = 1; status == ENDVAT_MUX_ERROR_UNIX_SOCKET && retry <= kMuxRetries; ++retry) {
    ZLOG_INFO("Retry attempt %d to configure MUX.", retry);
    status = library->EndvatConfigureMux(buffer, length);
  }
  if (status == ENDVAT_SUCCESS) {
    ZLOG_INFO("EndvatUtil: Successfully configured Mux");
  } else {
    ZLOG_CTX_ERROR(1055, "EndvatUtil: Failed to configure Mux, error: %s", MuxErrorName(status));
  }
  return status;
}

}  // namespace Ctxt::EndvatUtil
