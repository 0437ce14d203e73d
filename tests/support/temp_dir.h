#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace zem::test {

/// A new directory under the system's temporary one; it is deleted with the object.
class TempDir {
 public:
  TempDir() {
    std::string pattern = std::filesystem::temp_directory_path() / "zem-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string Path() const { return path_; }
  std::string Path(const std::string& name) const { return path_ / name; }

  /// Writes a file and returns its path.
  std::string Write(const std::string& name, const std::string& content) const {
    std::ofstream(Path(name), std::ios::binary) << content;
    return Path(name);
  }

  std::string Read(const std::string& name) const {
    std::ostringstream content;
    content << std::ifstream(Path(name), std::ios::binary).rdbuf();
    return content.str();
  }

 private:
  std::filesystem::path path_;
};

}  // namespace zem::test
