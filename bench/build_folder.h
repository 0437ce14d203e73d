#pragma once

#include <unistd.h>

#include <string>

namespace zem::bench {

/// The folder of the build to which this benchmark belongs: "build/PRESET", if the benchmark is in
/// "bench/NAME".
inline std::string BuildFolder() {
  char path[4096];
  const ssize_t size = ::readlink("/proc/self/exe", path, sizeof(path));
  std::string root(path, size > 0 ? static_cast<size_t>(size) : 0);
  for (int i = 0; i < 3; ++i) root = root.substr(0, root.rfind('/'));
  return root;
}

}  // namespace zem::bench
