#pragma once

#include <memory>
#include <string>

namespace zem::rpc {

/// While one exists, "tcp://" endpoints of every transport in the process meet in memory instead of in the
/// operating system: connecting to a listener of the same text makes a pair of byte pipes.  Bytes travel as
/// posted work, so a virtual clock sees them.  For tests.
///
/// Threads: all operations from any thread.
class MemoryNetwork {
 public:
  MemoryNetwork();
  ~MemoryNetwork();

  /// Breaks every connection made to `endpoint`, as if the process behind it had died; its listener stays.
  void Break(const std::string& endpoint);

  /// While `away`, connecting to `endpoint` is refused.
  void SetAway(const std::string& endpoint, bool away);

  /// While `frozen`, bytes to and from `endpoint` wait.
  void Freeze(const std::string& endpoint, bool frozen);

  size_t connections(const std::string& endpoint) const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zem::rpc
