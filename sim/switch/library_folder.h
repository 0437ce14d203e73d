#pragma once

#include <string>
#include <vector>

namespace zem::sim {

/// The folder in which the daemon's loader finds the host's libraries: links to those that were built, so
/// that a host can be without one, or have one that lacks a function.
///
/// Threads: one owner.
/// Errors: false with the reason in `error`.
class LibraryFolder {
 public:
  /// "libklnPublic.so", "libvdl2kln.so", "libvdrkln.so".
  static const std::vector<std::string>& Names();
  /// Where they were built.
  static std::string Built();

  /// `path` is made when it is not there.
  explicit LibraryFolder(std::string path) : path_(std::move(path)) {}
  const std::string& path() const { return path_; }

  /// All whole.
  [[nodiscard]] bool Install(std::string* error) const;
  [[nodiscard]] bool Remove(const std::string& name, std::string* error) const;
  [[nodiscard]] bool Restore(const std::string& name, std::string* error) const;
  /// Puts a library there that has no function `symbol`.
  [[nodiscard]] bool LackSymbol(const std::string& name, const std::string& symbol, std::string* error) const;

 private:
  const std::string path_;
};

}  // namespace zem::sim
