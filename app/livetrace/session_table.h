#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace orlane::zem::livetrace {
class LivetraceMetadataMsg;
}

namespace zem::Tarvik {

struct LivetraceSession;

/// The live traces by their id, each with a slot for either side.
///
/// Threads: the caller's mutex guards it.
class SessionTable {
 public:
  using SessionPtr = std::shared_ptr<LivetraceSession>;

  static constexpr size_t kMostEntries = 1024;

  /// The slot for a side of a trace.  A request of the manager names its side (`exact`); what comes from the
  /// dataplane for side 1 belongs to side 0 unless there is a session on side 1.  Null when the table has no
  /// such trace.
  SessionPtr* FindSlot(uint64_t id, uint32_t side, bool exact);
  /// The session that a message of the dataplane belongs to, or null.
  SessionPtr Find(const orlane::zem::livetrace::LivetraceMetadataMsg& metadata);

  /// The slot of a trace, which is added under `name` if need be.  Null when the table is full.
  SessionPtr* MakeSlot(uint64_t id, uint32_t side, const std::string& name);

  /// Removes a trace, and gives its sessions.  False when there was none.
  bool Erase(uint64_t id, std::vector<SessionPtr>* sessions);
  /// Removes one session if it is still there; its trace goes with the next Sweep.
  void Clear(const SessionPtr& session);
  /// Removes the sessions for which `gone` is true, and traces without any.
  void Sweep(const std::function<bool(const SessionPtr&)>& gone);

  std::vector<std::pair<uint64_t, std::string>> Names() const;
  /// Null when there is no such trace.
  const std::string* NameOf(uint64_t id) const;

 private:
  struct Entry {
    std::array<SessionPtr, 2> slots;
    std::string name;
  };

  std::map<uint64_t, Entry> entries_;
};

}  // namespace zem::Tarvik
