#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "app/ctxteng/base/conn_info.h"
#include "app/ctxteng/base/vm_data.h"
#include "app/ctxteng/guest/event_keys.h"
#include "platform/endvat/endvat.h"

namespace Ctxt {

class LibraryBuffer;
class UserTables;

/// Makes the record of a network event from the library's answers.
///
/// Threads: `Build` in the callback of the event, several guests at once.
class ConnInfoBuilder {
 public:
  struct HashOptions {
    bool enable = true;
    /// By the process's identifier instead of by the event.
    bool old_method = true;
  };

  /// `users` outlives the builder.
  ConnInfoBuilder(UserTables& users, IsWellKnownSid is_well_known, HashOptions hash)
      : users_(users), is_well_known_(std::move(is_well_known)), hash_(hash) {}

  /// Throws EndvatApiError when the connection or its process is not known.  What else cannot be learned
  /// stays empty.
  std::shared_ptr<ConnInfo> Build(uint32_t type, ENDVAT_HANDLE handle, const VmData& vm) const;

 private:
  struct Work;

  void TakeAddresses(const LibraryBuffer& buffer, uint32_t type, ConnInfo& info) const;
  void TakeUserId(const LibraryBuffer& buffer, Work& work) const;
  void ReplaceSystemAccount(Work& work) const;
  void TakeGroups(Work& work) const;
  void TakeUser(Work& work) const;
  void TakeProcess(Work& work) const;
  void TakeProcessHash(Work& work) const;

  UserTables& users_;
  const IsWellKnownSid is_well_known_;
  const HashOptions hash_;
};

/// Logs the record at debug level.
void Dump(const ConnInfo& info);

}  // namespace Ctxt
