#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The files that hold the state of the host's kernel, for the libraries that stand in for it and for those
/// who watch it.  It lives as long as the tree does: a daemon that starts again finds the host as it left it.
///
/// Reading needs no lock, since files and ports appear and go by one rename; what changes several things, or
/// depends on what is there, holds TreeLock.
namespace zem::sim::tree {

/// ZEM_SIM_ROOT, or "/var/run/orlane/sim".
std::string Root();
std::string SwitchesDir();
std::string SwitchDir(std::string_view id);
std::string PortDir(std::string_view id, std::string_view key);
std::string KnlnicsDir();
std::string RouterFile(std::string_view id);
std::string FaultsFile();
std::string CallsFile();
std::string ViolationsFile();

/// May be a name in the tree: neither empty nor hidden, no "/", at most 255 bytes.
bool GoodName(std::string_view name);

/// Keeps all others in all processes from changing the tree.
class TreeLock {
 public:
  enum class Kind { kShared, kExclusive };
  explicit TreeLock(Kind kind = Kind::kExclusive);
  ~TreeLock();
  TreeLock(const TreeLock&) = delete;
  TreeLock& operator=(const TreeLock&) = delete;

 private:
  int fd_;
};

bool Exists(const std::string& path);
std::optional<std::string> ReadFile(const std::string& path);
/// Under another name first; false when the folder is not there.
[[nodiscard]] bool WriteFile(const std::string& path, std::string_view bytes);
/// False when there was none.
[[nodiscard]] bool RemoveFile(const std::string& path);
/// Out of sight at once, then bit by bit; false when there was none.
[[nodiscard]] bool RemoveTree(const std::string& path);
/// A name next to `path` that nobody sees or has.
std::string HiddenBeside(const std::string& path);
/// The names that are not hidden, as the system gives them.  Nothing when there is no such folder.
std::optional<std::vector<std::string>> List(const std::string& path);

/// The same without a list.  False when there is no such folder.
[[nodiscard]] bool ForEachName(const std::string& path, const std::function<void(std::string_view)>& each);

/// A property: its flags, and its bytes.
struct Property {
  uint32_t flags = 0;
  std::string bytes;
};
std::optional<Property> ReadProperty(const std::string& path);
std::string PropertyFile(uint32_t flags, std::string_view bytes);

}  // namespace zem::sim::tree
