#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zem::sim {

/// What the switch libraries logged about their callers: the calls, the rules that were broken, and the
/// objects that are held.
///
/// Threads: all operations from any thread; other processes may log at the same time.
class LibraryJournal {
 public:
  /// The calls, oldest first; only the lines that contain `part`.
  std::vector<std::string> Calls(std::string_view part = {}) const;
  /// The rules that were broken, oldest first.
  std::vector<std::string> Violations() const;
  /// Lines such as "DVSData_Alloc: 2 of process 17": objects that a running process has got and not released.
  std::vector<std::string> Live() const;
  void Clear();
};

}  // namespace zem::sim
