#pragma once

#include <cstddef>

namespace zem {

/// Gives memory back to the system that big work has left free in the allocator: a message of many megabytes
/// parses into small pieces, and the allocator keeps the pages of those for good.
///
/// Threads: one at a time.
class MemoryReturn {
 public:
  /// Free bytes that are not worth a look.
  static constexpr size_t kLeast = 8 << 20;

  /// Free ends of the heaps, and big blocks, go back by themselves from now on.  Before other threads start.
  static void Configure();

  /// Gives back what is free when the process has grown by `kLeast` since the last time and has as much free.
  /// True when it did.  Takes milliseconds then, in which threads that allocate may wait.
  bool GiveBack();

 private:
  size_t resident_after_ = 0;
};

}  // namespace zem
