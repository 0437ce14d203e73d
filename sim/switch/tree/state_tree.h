#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The files that hold the state of the host's kernel, for the libraries that stand in for it and for
/// observers.  They outlive the daemon: when it starts again, it finds the host as it left it.
///
/// Readers need no lock, since files and ports appear and disappear by a single rename.  A change of several
/// things, or one that depends on the present state, holds a TreeLock.
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

/// Whether `name` may be a name in the tree: neither empty nor hidden, no "/", at most 255 bytes.
bool GoodName(std::string_view name);

/// Prevents changes of the tree by all other threads and processes.
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
/// Writes under another name and renames; false when the folder does not exist.
[[nodiscard]] bool WriteFile(const std::string& path, std::string_view bytes);
/// Returns false when there was no such file.
[[nodiscard]] bool RemoveFile(const std::string& path);
/// Hides the folder by a rename and then deletes it; false when there was none.
[[nodiscard]] bool RemoveTree(const std::string& path);
/// A hidden name next to `path` that nothing else uses.
std::string HiddenBeside(const std::string& path);
/// The names that are not hidden, in the system's order.  Nothing when there is no such folder.
std::optional<std::vector<std::string>> List(const std::string& path);

/// Passes the names to a callback instead of collecting them.  Returns false when there is no such folder.
[[nodiscard]] bool ForEachName(const std::string& path, const std::function<void(std::string_view)>& each);

/// A property: its flags and its bytes.
struct Property {
  uint32_t flags = 0;
  std::string bytes;
};
std::optional<Property> ReadProperty(const std::string& path);
std::string PropertyFile(uint32_t flags, std::string_view bytes);

}  // namespace zem::sim::tree
