#pragma once

#include <cstdint>
#include <string>

#include "app/ctxteng/guest/endvat_names.h"
#include "app/ctxteng/guest/library_buffer.h"
#include "platform/endvat/endvat.h"

/// The questions to the guest event library.  Each returns the library's status, ENDVAT_ERROR_NO_MEMORY when
/// the answer has no room; it has logged why it failed.  A status of 0 without a buffer is a failure too: the
/// library has nothing to say.
///
/// Threads: in a callback of the guest that is asked about, unless the comment says otherwise.
namespace Ctxt::EndvatUtil {

uint32_t GetNetworkInfo(ENDVAT_HANDLE handle, LibraryBuffer* out);
uint32_t GetEventProcessInfo(ENDVAT_HANDLE handle, LibraryBuffer* out);
uint32_t GetEventProcessHash(ENDVAT_HANDLE handle, LibraryBuffer* out);
uint32_t GetProcessHash(const ENDVAT_PROCESS_ID& process, LibraryBuffer* out);
uint32_t GetProcessGroups(const ENDVAT_PROCESS_ID& process, LibraryBuffer* out);
/// The groups of a session; `at_login` chooses the texts of the log.
uint32_t GetSessionGroups(uint32_t session, bool at_login, LibraryBuffer* out);
uint32_t GetLogonSessions(LibraryBuffer* out);
uint32_t GetSystemEventInfo(ENDVAT_HANDLE handle, LibraryBuffer* out);

/// A guest whose agent is too old to know answers ENDVAT_ERROR_NOT_SUPPORTED: with a block that says Windows.
uint32_t QueryOsInfo(LibraryBuffer* out);
/// The same without a block.
uint32_t QueryGiInfo(LibraryBuffer* out);
/// Sets `multi_session` when the guest says what kind of host it is.
uint32_t QueryHostType(bool* multi_session);
uint32_t GetVmId(std::string* bios_uuid, std::string* gcf_path);
uint32_t QuerySidInfo(ENDVAT_HANDLE handle, const std::string& sid, std::string* name, std::string* domain);
uint32_t QueryUidInfo(ENDVAT_HANDLE handle, uint32_t uid, std::string* name, std::string* domain);

/// Changes the events that the guest sends: to exactly `mask`, or only those bits on or off.
uint32_t UpdateEventsMask(uint64_t mask, bool enable, bool exact);

/// In a callback about a service VM.
uint32_t GetSolutionId(std::string* id);
/// From any thread.
uint32_t GetHealthStatus(std::string* text);
/// From any thread.  Tries four times while the multiplexer's socket is not there.
uint32_t ConfigureMux(const void* buffer, uint32_t length);

}  // namespace Ctxt::EndvatUtil
