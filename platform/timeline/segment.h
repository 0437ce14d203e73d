#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/timeline/operation.h"

namespace zem::timeline {

/// A piece of a step's text.
struct TextPart {
  std::string_view key;  // empty in front of a plain detail; lives forever
  std::string_view text;
  std::atomic<TextPart*> next{nullptr};
};

/// A step in its segment.  The segment's thread writes, others read: what `end_ns` publishes is final.
struct StepRecord {
  std::string_view name;
  TimePoint start;
  uint32_t depth = 0;
  bool failed = false;      // before `end_ns`
  std::string_view result;  // before `end_ns`
  std::atomic<TextPart*> parts{nullptr};
  TextPart* last_part = nullptr;
  std::atomic<int64_t> duration_ns{-1};
  std::atomic<uint32_t> count{1};  // calls that this record stands for
  std::atomic<StepRecord*> next{nullptr};
};

/// The steps of one thread for one operation.
///
/// Threads: everything but Read by the thread that made it.
class Segment {
 public:
  explicit Segment(Operation& operation);
  ~Segment();
  Segment(const Segment&) = delete;
  Segment& operator=(const Segment&) = delete;

  /// Null when the operation has no room left.
  StepRecord* Begin(std::string_view name, TimePoint start, bool important);
  /// The step before, when it has this name and the operation has so many steps that alike ones share a
  /// record; else null.
  StepRecord* Join(std::string_view name);
  void AddText(StepRecord* step, std::string_view key, std::string_view text);
  void End(StepRecord* step, TimePoint now);
  /// A copy of `text` that lives as long as the segment; cut, empty when there is no room.
  std::string_view Keep(std::string_view text, bool important);

  uint32_t depth = 0;

  void Read(TimePoint begun, std::vector<StepReading>* steps) const;

 private:
  struct Chunk;
  class FreeChunks;
  void* Allocate(size_t size, bool important);

  Operation& operation_;
  const std::string thread_;
  Chunk* chunks_ = nullptr;  // the newest one; each has the one before
  Chunk* oldest_ = nullptr;
  size_t count_ = 0;
  std::atomic<StepRecord*> first_{nullptr};
  StepRecord* last_ = nullptr;
};

/// The segment into which this thread writes; null outside of an operation.  Read often.
Segment* CurrentSegment();

}  // namespace zem::timeline
