#pragma once

#include <string>
#include <string_view>

namespace zem {

/// Where a write of a whole file stopped.
enum class FileWrite {
  kDone,
  kNotOpened,   // the file is as it was
  kNotWritten,  // the same; what was written so far is gone
};

/// Replaces the file `path` by `bytes`: a reader, also one after a power cut, sees either the old content or
/// the new.  The text beside it, "PATH.tmp", is what a killed writer may leave; the next one takes it over.
/// `error` says why.  One writer per path at a time.
[[nodiscard]] FileWrite WriteFileWhole(const std::string& path, std::string_view bytes, std::string* error);

/// Reads a whole file of at most `limit` bytes.  0, or an error number (EFBIG for a longer one).
[[nodiscard]] int ReadFileWhole(const std::string& path, size_t limit, std::string* bytes);

/// 0 also when there is none; else an error number.
[[nodiscard]] int RemoveFile(const std::string& path);

}  // namespace zem
