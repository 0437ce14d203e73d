#pragma once

#include <string>

namespace zem::Tarvik {

/// Moves a file to a path that nothing has yet, across file systems too; others see it whole or not at all.
/// Returns false, after a log line, when it was not moved; the file is then where it was.
[[nodiscard]] bool MoveFile(const std::string& from, const std::string& to);

}  // namespace zem::Tarvik
