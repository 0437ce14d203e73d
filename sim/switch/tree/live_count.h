#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace zem::sim {

/// The number of objects of one kind that this process has got and not released.  It is kept in a file of the
/// tree, so that other processes can read it while this one lives, and so that it is right however this one
/// ends.
///
/// Threads: all operations from any.
class LiveCount {
 public:
  /// `kind` becomes part of a file's name and has to live as long as the process.
  explicit LiveCount(const char* kind) : kind_(kind) {}
  ~LiveCount();
  LiveCount(const LiveCount&) = delete;
  LiveCount& operator=(const LiveCount&) = delete;

  void Add(int64_t change);

 private:
  std::atomic<int64_t>* Counter();

  const char* const kind_;
  std::once_flag once_;
  std::atomic<int64_t>* counter_ = nullptr;  // mapped from the file, shared with its readers
};

/// The objects that running processes have got and not released.
struct LiveObjects {
  int pid;
  std::string kind;
  int64_t count;
};
std::vector<LiveObjects> ReadLiveObjects();

}  // namespace zem::sim
