#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/core/unique_fd.h"

namespace zem::bench {

/// Another process, whose standard output is read here; it is killed with this object.
class Spawned {
 public:
  explicit Spawned(const std::vector<std::string>& argv);
  ~Spawned();
  Spawned(const Spawned&) = delete;
  Spawned& operator=(const Spawned&) = delete;

  /// Exactly so many bytes.  Throws when the process ends before.
  void Read(void* bytes, size_t size);
  /// Up to the end of the line, which is left out.
  std::string Line();

 private:
  pid_t pid_ = -1;
  UniqueFd output_;
};

}  // namespace zem::bench
