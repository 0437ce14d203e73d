#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace zem {

/// Where a write of a whole file stopped.
enum class FileWrite {
  kDone,
  kNotOpened,   // the file is as it was
  kNotWritten,  // the file is as it was; the temporary file was removed
};

/// Replaces the file `path` by `bytes`: a reader, also one after a power cut, sees either the old content or
/// the new.  A killed writer may leave "PATH.tmp", which the next one overwrites.  `error` says why a write
/// failed.  `mode` is the new file's.  One writer per path at a time.
[[nodiscard]] FileWrite WriteFileWhole(const std::string& path, std::string_view bytes, std::string* error,
                                       mode_t mode = 0644);

/// Reads a whole file of at most `limit` bytes.  Returns 0, or an errno (EFBIG for a longer file).
[[nodiscard]] int ReadFileWhole(const std::string& path, size_t limit, std::string* bytes);

/// Removes a file.  Returns 0, also when there is none, else an errno.
[[nodiscard]] int RemoveFile(const std::string& path);

}  // namespace zem
