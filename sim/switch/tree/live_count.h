#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace zem::sim {

/// How many objects of one kind this process has been given and not given back, kept in a file of the tree,
/// so that others see it while the process lives, whatever ends it.
///
/// Threads: all operations from any.
class LiveCount {
 public:
  /// `kind` is part of a file's name and lives forever.
  explicit LiveCount(const char* kind) : kind_(kind) {}
  ~LiveCount();
  LiveCount(const LiveCount&) = delete;
  LiveCount& operator=(const LiveCount&) = delete;

  void Add(int64_t change);

 private:
  std::atomic<int64_t>* Counter();

  const char* const kind_;
  std::once_flag once_;
  std::atomic<int64_t>* counter_ = nullptr;  // shared with whoever reads the file
};

/// Of the processes that live: what has been given to one and not given back.
struct LiveObjects {
  int pid;
  std::string kind;
  int64_t count;
};
std::vector<LiveObjects> ReadLiveObjects();

}  // namespace zem::sim
