#pragma once

#include <string>
#include <vector>

namespace zem::sim {

/// The folder in which the daemon's loader finds the host's libraries.  It holds links to the built
/// libraries, so that a test can remove one, or replace it by one that lacks a function.
///
/// Threads: one owner.
/// Errors: false, with the reason in `error`.
class LibraryFolder {
 public:
  /// The names of the libraries: "libklnPublic.so", "libvdl2kln.so", "libvdrkln.so", "libzemfw.so".
  static const std::vector<std::string>& Names();
  /// The folder of the built libraries.
  static std::string Built();

  /// `path` is created when it does not exist.
  explicit LibraryFolder(std::string path) : path_(std::move(path)) {}
  const std::string& path() const { return path_; }

  /// Puts all libraries back, complete.
  [[nodiscard]] bool Install(std::string* error) const;
  [[nodiscard]] bool Remove(const std::string& name, std::string* error) const;
  [[nodiscard]] bool Restore(const std::string& name, std::string* error) const;
  /// Replaces a library by a copy that lacks the function `symbol`.
  [[nodiscard]] bool LackSymbol(const std::string& name, const std::string& symbol, std::string* error) const;

 private:
  const std::string path_;
};

}  // namespace zem::sim
