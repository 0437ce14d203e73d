#pragma once

#include <atomic>
#include <optional>
#include <string>

#include "framework/tasks/synchronizable.h"

namespace zem {

/// The transport node id.  A host without one is not set up for operation, and that is what every refusal
/// for this reason looks at.
///
/// Threads: all operations from any thread.
class HostIdentity {
 public:
  void SetHostId(const std::string& id);
  void UnsetHostId();
  /// False, with `out` as it was, while the host has none.
  bool GetHostId(std::string* out);
  std::optional<std::string> id();

  /// The host's management has taken an id, or that there is none, from this process.
  void SetToldToHost() { told_to_host_ = true; }
  bool told_to_host() const { return told_to_host_; }

  /// Nothing is known, as at the start of the process.
  void Forget();

 private:
  static constexpr const char* kUninitialized = "uninitialized";

  Synchronizable lock_;  // guards id_
  std::string id_ = kUninitialized;
  std::atomic<bool> told_to_host_ = false;
};

/// The process's.
HostIdentity& Host();

}  // namespace zem
