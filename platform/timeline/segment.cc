#include "platform/timeline/segment.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

#include "platform/core/thread_name.h"

// A segment is a list in chunks of memory that only grow.  Its thread links what it has written with a
// release, so a reader needs no lock and the writer never waits for one: the cost of a step is two readings
// of the clock and some stores.

namespace zem::timeline {
namespace {

constexpr size_t kChunkBytes = 2048;
constexpr size_t kMostText = 240;
// Stands for a result that the operation has no memory left for, so that it does not read as none.
constexpr std::string_view kLeftOut = "(left out)";
constexpr size_t kCrowdedBytes = size_t{24} << 10;

size_t Aligned(size_t size) {
  return (size + alignof(std::max_align_t) - 1) & ~(alignof(std::max_align_t) - 1);
}

}  // namespace

struct Segment::Chunk {
  Chunk* before;
  size_t used;
  alignas(std::max_align_t) char bytes[kChunkBytes];
};

// Chunks that are free again.  An operation is forgotten by another thread than those that wrote it, and
// giving its memory back to the allocator and taking it anew would cost more than all its steps.
class Segment::FreeChunks {
 public:
  /// Null without memory.
  Chunk* Take() {
    {
      const std::lock_guard lock(mutex_);
      if (first_ != nullptr) {
        --count_;
        return std::exchange(first_, first_->before);
      }
    }
    return new (std::nothrow) Chunk;
  }

  /// Takes a whole list; only its last chunk is looked at, since the others are in nobody's cache any more.
  void Give(Chunk* newest, Chunk* oldest, size_t count) {
    if (newest == nullptr) return;
    {
      const std::lock_guard lock(mutex_);
      if (count_ + count <= kMostFree) {
        count_ += count;
        oldest->before = std::exchange(first_, newest);
        return;
      }
    }
    while (newest != nullptr) delete std::exchange(newest, newest->before);
  }

  static FreeChunks& Get() {
    static FreeChunks* const chunks = new FreeChunks;  // operations end until the process does
    return *chunks;
  }

 private:
  static constexpr size_t kMostFree = 512;

  std::mutex mutex_;  // guards what follows; a leaf
  Chunk* first_ = nullptr;
  size_t count_ = 0;
};

Segment::Segment(Operation& operation) : operation_(operation), thread_(ThreadName()) {}

Segment::~Segment() { FreeChunks::Get().Give(chunks_, oldest_, count_); }

void* Segment::Allocate(size_t size, bool important) {
  size = Aligned(size);
  if (chunks_ == nullptr || kChunkBytes - chunks_->used < size) {
    if (!operation_.Take(sizeof(Chunk), important)) return nullptr;
    Chunk* const fresh = FreeChunks::Get().Take();
    if (fresh == nullptr) return nullptr;
    fresh->before = chunks_;
    fresh->used = 0;
    chunks_ = fresh;
    if (oldest_ == nullptr) oldest_ = fresh;
    ++count_;
  }
  void* const place = chunks_->bytes + chunks_->used;
  chunks_->used += size;
  return place;
}

std::string_view Segment::Keep(std::string_view text, bool important) {
  text = text.substr(0, kMostText);
  if (text.empty()) return {};
  void* const place = Allocate(text.size(), important);
  if (place == nullptr) return kLeftOut;
  std::memcpy(place, text.data(), text.size());
  return {static_cast<const char*>(place), text.size()};
}

StepRecord* Segment::Begin(std::string_view name, TimePoint start, bool important) {
  void* const place = Allocate(sizeof(StepRecord), important);
  if (place == nullptr) {
    operation_.left_out_.fetch_add(1, std::memory_order_relaxed);
    return nullptr;
  }
  auto* const step = new (place) StepRecord;
  step->name = name;
  step->start = start;
  step->depth = depth;
  (last_ == nullptr ? first_ : last_->next).store(step, std::memory_order_release);
  last_ = step;
  return step;
}

StepRecord* Segment::Join(std::string_view name) {
  if (operation_.bytes() < kCrowdedBytes) return nullptr;
  if (last_ == nullptr || last_->name.data() != name.data() || last_->depth != depth) return nullptr;
  if (last_->failed || last_->duration_ns.load(std::memory_order_relaxed) < 0) return nullptr;
  last_->count.fetch_add(1, std::memory_order_relaxed);
  return last_;
}

void Segment::AddText(StepRecord* step, std::string_view key, std::string_view text) {
  text = text.substr(0, kMostText);
  void* const place = Allocate(sizeof(TextPart) + text.size(), false);
  if (place == nullptr) return;
  auto* const part = new (place) TextPart;
  char* const bytes = static_cast<char*>(place) + sizeof(TextPart);
  std::memcpy(bytes, text.data(), text.size());
  part->key = key;
  part->text = {bytes, text.size()};
  (step->last_part == nullptr ? step->parts : step->last_part->next).store(part, std::memory_order_release);
  step->last_part = part;
}

void Segment::End(StepRecord* step, TimePoint now) {
  step->duration_ns.store(std::max<int64_t>(0, (now - step->start).count()), std::memory_order_release);
}

void Segment::Read(TimePoint begun, std::vector<StepReading>* steps) const {
  const auto micros = [](int64_t ns) { return ns / 1000; };
  for (const StepRecord* step = first_.load(std::memory_order_acquire); step != nullptr;
       step = step->next.load(std::memory_order_acquire)) {
    StepReading& reading = steps->emplace_back();
    reading.name = step->name;
    reading.thread = thread_;
    reading.depth = step->depth;
    reading.start_us = micros((step->start - begun).count());
    const int64_t duration = step->duration_ns.load(std::memory_order_acquire);
    reading.duration_us = duration < 0 ? -1 : micros(duration);
    if (duration >= 0) {
      reading.failed = step->failed;
      reading.result = step->result;
    }
    if (const uint32_t count = step->count.load(std::memory_order_relaxed); count > 1) {
      reading.detail = std::to_string(count) + " calls, the first one:";
    }
    for (const TextPart* part = step->parts.load(std::memory_order_acquire); part != nullptr;
         part = part->next.load(std::memory_order_acquire)) {
      if (!reading.detail.empty()) reading.detail += ' ';
      if (!part->key.empty()) (reading.detail += part->key) += '=';
      reading.detail += part->text;
    }
  }
}

}  // namespace zem::timeline
