#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/core/unique_fd.h"

namespace zem::bench {

/// Another process whose standard output is read here; it is killed when this object is destroyed.
class Spawned {
 public:
  explicit Spawned(const std::vector<std::string>& argv);
  ~Spawned();
  Spawned(const Spawned&) = delete;
  Spawned& operator=(const Spawned&) = delete;

  /// Reads exactly that many bytes.  Throws when the process ends first.
  void Read(void* bytes, size_t size);
  /// Reads to the end of the line and returns it without the line feed.
  std::string Line();

 private:
  pid_t pid_ = -1;
  UniqueFd output_;
};

}  // namespace zem::bench
