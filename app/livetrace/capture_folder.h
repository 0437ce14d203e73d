#pragma once

#include <string>
#include <vector>

namespace zem::Tarvik {

/// The folder into which the dataplane writes captures, below a folder that everybody may write to.  Files
/// are removed from it only while it and the folder around it are real folders of this process's user that
/// nobody else may write to: whoever was there first could otherwise have any folder of the host emptied.
///
/// Threads: any.
class CaptureFolder {
 public:
  /// `path` ends with a slash.
  explicit CaptureFolder(std::string path) : path_(std::move(path)) {}

  /// Whether a name that comes from outside is that of a file in the folder.
  static bool IsName(const std::string& name);

  std::string PathOf(const std::string& name) const { return path_ + name; }
  /// False when nothing was removed.
  bool Remove(const std::string& name) const;
  /// Gives the names of the files that were removed; folders stay.
  std::vector<std::string> RemoveAll() const;

 private:
  const std::string path_;
};

}  // namespace zem::Tarvik
