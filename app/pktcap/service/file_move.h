#pragma once

#include <atomic>
#include <string>

namespace zem::Tarvik {

/// Moves a file to a path that nothing has yet, across file systems too; others see it whole or not at all.
/// Returns false, after a log line, when it was not moved; the file is then where it was.  Blocks while it
/// copies, unless `stop` is set.
[[nodiscard]] bool MoveFile(const std::string& from, const std::string& to, const std::atomic<bool>& stop);

}  // namespace zem::Tarvik
