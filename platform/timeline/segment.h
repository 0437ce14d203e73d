#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/timeline/operation.h"

namespace zem::timeline {

/// The steps of one thread for one operation.  A step is known by its depth: of the steps that are open in a
/// thread each has another one.
///
/// Threads: everything but Read by the thread that made it.
class Segment {
 public:
  /// Null when the operation has no room for one.
  static Segment* Make(Operation& operation);
  /// Gives back the memory of a segment and of those that follow it.
  static void Release(Segment* first);
  Segment(const Segment&) = delete;
  Segment& operator=(const Segment&) = delete;

  /// A step at `depth`; false when there is no room for it.
  bool Begin(std::string_view name, TimePoint start, bool important);
  /// Whether a step at `depth` is one more call of the step before, because that has this name and the
  /// operation has so many steps that alike ones share a record.
  bool Join(std::string_view name);
  /// What is told of a step that is open and has a record of its own: a detail, and how it ended.
  void AddText(uint32_t step_depth, std::string_view key, std::string_view text);
  void Result(uint32_t step_depth, std::string_view text, bool failed, bool important);
  void End(uint32_t step_depth, TimePoint start, TimePoint now);
  /// The end of a step that is one more call of the step before, whose end moves unless other steps began in
  /// this one.
  void EndJoined(uint32_t step_depth, TimePoint now);

  uint32_t depth = 0;
  // Of its operation, which guards them:
  Segment* next = nullptr;
  uint64_t thread_number = 0;

  void Read(std::vector<StepReading>* steps) const;

 private:
  struct Chunk;
  class FreeChunks;
  class Reader;

  /// It lives in its first chunk.
  Segment(Operation& operation, Chunk* chunk);
  ~Segment() = default;

  /// Room for `size` bytes in the newest chunk, which Publish shows to readers; null when the operation has
  /// no room left.
  char* Allocate(size_t size, bool important);
  void Publish();
  /// An end, whose room there is.
  char* Append(uint64_t word);
  void AddKeyed(uint32_t step_depth, std::string_view key, std::string_view text);
  static Chunk* NewChunk(Operation& operation, bool important);
  int64_t SinceBegin(TimePoint time) const;

  /// The step that began last, which others may join.
  struct Last {
    std::string_view name;
    uint32_t depth = 0;
    int64_t start_us = 0;
    bool failed = false;
    char* end = nullptr;    // of its record; null while it is open
    char* calls = nullptr;  // null while it is one
    uint32_t count = 1;
  };

  Operation& operation_;
  const std::string thread_;
  Chunk* const oldest_;
  Chunk* newest_;
  size_t chunks_ = 1;
  uint32_t used_ = 0;           // of the newest chunk, with what is not published yet
  uint32_t open_ = 0;           // steps whose end has its room already
  uint32_t lost_results_ = 0;   // a bit for the depth of each open step whose result found no room
  uint32_t lost_failures_ = 0;  // and for those of them that failed
  Last last_;
};

/// The segment into which this thread writes; null outside of an operation.  Read often.
Segment* CurrentSegment();

}  // namespace zem::timeline
