#include "platform/timeline/segment.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

#include "platform/core/thread_name.h"

// A segment is a row of entries in chunks of memory that only grow.  Its thread writes an entry and then
// publishes how far the chunk is filled, so a reader needs no lock and the writer never waits for one.  What
// steps cost is memory that no cache holds any more: an operation's was last used some hundred operations
// ago.  So entries are small, and a detail leaves out what it begins with in common with the one before,
// which is most of it for calls on one port.
//
// An entry begins with a word: its type, its step's depth, a byte and 48 bits of a number.  In the entry of a
// text the text follows these bytes at once, in place of the number.

namespace zem::timeline {
namespace {

constexpr size_t kMostText = 240;
constexpr size_t kMostKey = 240;
// Stands for a result that the operation has no memory left for, so that it does not read as none.
constexpr std::string_view kLeftOut = "(left out)";
constexpr size_t kCrowdedBytes = size_t{24} << 10;
constexpr uint32_t kMostDepth = 31;
constexpr size_t kWord = sizeof(uint64_t);

enum class Entry : uint8_t {
  kBegin,  // the length of the name, the start in microseconds since the operation's; then the name's address
  kDetail,   // its length without what it has in common with the detail before, and how much that is
  kKeyed,    // the length of its text, and of its key, which stands before it
  kResult,   // its length
  kFailure,  // its length
  kEnd,      // flags, the duration in microseconds
  kCalls,    // how many calls the step before stands for
};

constexpr uint8_t kResultLeftOut = 1;
constexpr uint8_t kFailed = 2;
constexpr size_t kDetailHead = 3;
constexpr size_t kResultHead = 2;

uint64_t Pack(Entry entry, uint32_t depth, uint8_t byte, int64_t number) {
  return static_cast<uint64_t>(entry) | depth << 3U | static_cast<uint64_t>(byte) << 8U |
         static_cast<uint64_t>(number) << 16U;
}

struct Head {
  explicit Head(uint64_t word)
      : entry(static_cast<Entry>(word & 7U)),
        depth(static_cast<uint32_t>(word >> 3U & 31U)),
        byte(static_cast<uint8_t>(word >> 8U)),
        number(static_cast<int64_t>(word) >> 16U) {}
  Entry entry;
  uint32_t depth;
  uint8_t byte;
  int64_t number;
};

constexpr size_t Aligned(size_t size) { return (size + kWord - 1) & ~(kWord - 1); }

// Some words change after they are published.
std::atomic_ref<uint64_t> WordAt(char* place) { return std::atomic_ref(*reinterpret_cast<uint64_t*>(place)); }

// The last detail of this thread, against which the next one is shortened.
struct RecentDetail {
  const void* segment = nullptr;
  size_t length = 0;
  std::array<char, kMostText> text;
};
thread_local RecentDetail recent_detail;

// How many bytes two texts begin with alike.
size_t Common(const char* one, const char* other, size_t most) {
  size_t same = 0;
  for (; same + kWord <= most; same += kWord) {
    uint64_t a = 0;
    uint64_t b = 0;
    std::memcpy(&a, one + same, kWord);
    std::memcpy(&b, other + same, kWord);
    if (a != b) break;
  }
  while (same < most && one[same] == other[same]) ++same;
  return same;
}

}  // namespace

struct Segment::Chunk {
  std::atomic<Chunk*> next;
  std::atomic<uint32_t> published;
  alignas(kWord) char bytes[1024 - 16];
};
constexpr uint32_t kFirstEntry = Aligned(sizeof(Segment));  // behind the segment in its first chunk

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
        return std::exchange(first_, first_->next.load(std::memory_order_relaxed));
      }
    }
    return new (std::nothrow) Chunk;
  }

  /// Takes a whole list; only its last chunk is looked at, since the others are in nobody's cache any more.
  void Give(Chunk* oldest, Chunk* newest, size_t count) {
    {
      const std::lock_guard lock(mutex_);
      if (count_ + count <= kMostFree) {
        count_ += count;
        newest->next.store(std::exchange(first_, oldest), std::memory_order_relaxed);
        return;
      }
    }
    while (oldest != nullptr) delete std::exchange(oldest, oldest->next.load(std::memory_order_relaxed));
  }

  static FreeChunks& Get() {
    static FreeChunks* const chunks = new FreeChunks;  // operations end until the process does
    return *chunks;
  }

 private:
  static constexpr size_t kMostFree = 1024;

  std::mutex mutex_;  // guards what follows; a leaf
  Chunk* first_ = nullptr;
  size_t count_ = 0;
};

// --- Writing.

Segment::Segment(Operation& operation, Chunk* chunk)
    : operation_(operation), thread_(ThreadName()), oldest_(chunk), newest_(chunk), used_(kFirstEntry) {
  // What this thread wrote last may have been in a segment that was at the same address.
  recent_detail.segment = nullptr;
}

Segment* Segment::Make(Operation& operation) {
  Chunk* const chunk = NewChunk(operation, true);
  return chunk != nullptr ? new (chunk->bytes) Segment(operation, chunk) : nullptr;
}

void Segment::Release(Segment* first) {
  while (first != nullptr) {
    Segment& segment = *std::exchange(first, first->next);
    Chunk* const oldest = segment.oldest_;
    Chunk* const newest = segment.newest_;
    const size_t count = segment.chunks_;
    segment.~Segment();
    FreeChunks::Get().Give(oldest, newest, count);
  }
}

Segment::Chunk* Segment::NewChunk(Operation& operation, bool important) {
  if (!operation.Take(sizeof(Chunk), important)) return nullptr;
  Chunk* const chunk = FreeChunks::Get().Take();
  if (chunk == nullptr) return nullptr;
  chunk->next.store(nullptr, std::memory_order_relaxed);
  chunk->published.store(0, std::memory_order_relaxed);
  return chunk;
}

// The ends of the open steps always have their room in the newest chunk.
char* Segment::Allocate(size_t size, bool important) {
  size = Aligned(size);
  if (sizeof(Chunk::bytes) - used_ < size + open_ * kWord) {
    Chunk* const fresh = NewChunk(operation_, important);
    if (fresh == nullptr) return nullptr;
    newest_->next.store(fresh, std::memory_order_release);
    newest_ = fresh;
    used_ = 0;
    ++chunks_;
  }
  char* const place = newest_->bytes + used_;
  used_ += static_cast<uint32_t>(size);
  return place;
}

void Segment::Publish() { newest_->published.store(used_, std::memory_order_release); }

char* Segment::Append(uint64_t word) {
  char* const place = newest_->bytes + used_;
  used_ += kWord;
  std::memcpy(place, &word, sizeof(word));
  Publish();
  return place;
}

int64_t Segment::SinceBegin(TimePoint time) const {
  return std::chrono::duration_cast<std::chrono::microseconds>(time - operation_.begun_).count();
}

bool Segment::Begin(std::string_view name, TimePoint start, bool important) {
  name = name.substr(0, kMostText);
  const char* const address = name.data();
  // With the room for its end.
  char* const place = depth > kMostDepth ? nullptr : Allocate(kWord + sizeof(address) + kWord, important);
  if (place == nullptr) {
    operation_.left_out_.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
  used_ -= kWord;
  ++open_;
  const int64_t start_us = SinceBegin(start);
  const uint64_t word = Pack(Entry::kBegin, depth, static_cast<uint8_t>(name.size()), start_us);
  std::memcpy(place, &word, sizeof(word));
  std::memcpy(place + kWord, &address, sizeof(address));
  Publish();
  last_ = {name, depth, start_us};
  lost_results_ &= ~(1U << depth);
  lost_failures_ &= ~(1U << depth);
  return true;
}

bool Segment::Join(std::string_view name) {
  if (operation_.bytes() < kCrowdedBytes) return false;
  if (last_.end == nullptr || last_.failed || last_.depth != depth || last_.name.data() != name.data())
    return false;
  if (last_.calls == nullptr && (last_.calls = Allocate(kWord, false)) == nullptr) return false;
  const uint64_t word = Pack(Entry::kCalls, depth, 0, ++last_.count);
  WordAt(last_.calls).store(word, std::memory_order_relaxed);
  Publish();
  return true;
}

void Segment::AddText(uint32_t step_depth, std::string_view key, std::string_view text) {
  text = text.substr(0, kMostText);
  if (!key.empty()) return AddKeyed(step_depth, key.substr(0, kMostKey), text);
  RecentDetail& recent = recent_detail;
  const size_t common = recent.segment == this
                            ? Common(text.data(), recent.text.data(), std::min(text.size(), recent.length))
                            : 0;
  text.remove_prefix(common);
  char* const place = Allocate(kDetailHead + text.size(), false);
  if (place == nullptr) return;
  const uint64_t word = Pack(Entry::kDetail, step_depth, static_cast<uint8_t>(text.size()), 0);
  std::memcpy(place, &word, kDetailHead - 1);
  place[kDetailHead - 1] = static_cast<char>(common);
  std::memcpy(place + kDetailHead, text.data(), text.size());
  Publish();
  std::memcpy(recent.text.data() + common, text.data(), text.size());
  recent.length = common + text.size();
  recent.segment = this;
}

void Segment::AddKeyed(uint32_t step_depth, std::string_view key, std::string_view text) {
  char* const place = Allocate(kDetailHead + key.size() + text.size(), false);
  if (place == nullptr) return;
  const uint64_t word = Pack(Entry::kKeyed, step_depth, static_cast<uint8_t>(text.size()), 0);
  std::memcpy(place, &word, kDetailHead - 1);
  place[kDetailHead - 1] = static_cast<char>(key.size());
  std::memcpy(place + kDetailHead, key.data(), key.size());
  std::memcpy(place + kDetailHead + key.size(), text.data(), text.size());
  Publish();
}

void Segment::Result(uint32_t step_depth, std::string_view text, bool failed, bool important) {
  text = text.substr(0, kMostText);
  if (last_.depth == step_depth) last_.failed = failed;
  char* const place = Allocate(kResultHead + text.size(), important);
  if (place == nullptr) {
    lost_results_ |= 1U << step_depth;
    if (failed) lost_failures_ |= 1U << step_depth;
    return;
  }
  const uint64_t word =
      Pack(failed ? Entry::kFailure : Entry::kResult, step_depth, static_cast<uint8_t>(text.size()), 0);
  std::memcpy(place, &word, kResultHead);
  std::memcpy(place + kResultHead, text.data(), text.size());
  Publish();
}

void Segment::End(uint32_t step_depth, TimePoint start, TimePoint now) {
  const uint32_t bit = 1U << step_depth;
  const uint8_t flags = static_cast<uint8_t>(((lost_results_ & bit) != 0 ? kResultLeftOut : 0) |
                                             ((lost_failures_ & bit) != 0 ? kFailed : 0));
  const auto duration = std::chrono::duration_cast<std::chrono::microseconds>(now - start).count();
  --open_;
  char* const place = Append(Pack(Entry::kEnd, step_depth, flags, std::max<int64_t>(0, duration)));
  if (last_.depth == step_depth) last_.end = place;
}

void Segment::EndJoined(uint32_t step_depth, TimePoint now) {
  // With steps in it, the last one is one of them.
  if (last_.depth != step_depth) return;
  const int64_t duration = std::max<int64_t>(0, SinceBegin(now) - last_.start_us);
  const uint8_t flags = Head(WordAt(last_.end).load(std::memory_order_relaxed)).byte;
  WordAt(last_.end).store(Pack(Entry::kEnd, last_.depth, flags, duration), std::memory_order_relaxed);
}

// --- Reading.

class Segment::Reader {
 public:
  Reader(const std::string& thread, std::vector<StepReading>* steps) : thread_(thread), steps_(*steps) {}

  void Read(Chunk* chunk, size_t at) {
    const uint32_t filled = chunk->published.load(std::memory_order_acquire);
    while (at < filled) at += ReadEntry(chunk->bytes + at);
  }

 private:
  size_t ReadEntry(char* place) {
    const Head head(WordAt(place).load(std::memory_order_relaxed));
    if (head.entry == Entry::kBegin) return ReadBegin(head, place);
    StepReading& step = steps_[step_at_[head.depth]];
    switch (head.entry) {
      case Entry::kDetail: {
        detail_.resize(static_cast<uint8_t>(place[kDetailHead - 1]));
        detail_.append(place + kDetailHead, head.byte);
        if (!step.detail.empty()) step.detail += ' ';
        step.detail += detail_;
        return Aligned(kDetailHead + head.byte);
      }
      case Entry::kKeyed: {
        const size_t key = static_cast<uint8_t>(place[kDetailHead - 1]);
        if (!step.detail.empty()) step.detail += ' ';
        step.detail.append(place + kDetailHead, key)
            .append(1, '=')
            .append(place + kDetailHead + key, head.byte);
        return Aligned(kDetailHead + key + head.byte);
      }
      case Entry::kResult:
      case Entry::kFailure:
        results_[head.depth].assign(place + kResultHead, head.byte);
        failed_[head.depth] = head.entry == Entry::kFailure;
        return Aligned(kResultHead + head.byte);
      case Entry::kEnd:
        step.duration_us = head.number;
        step.failed = failed_[head.depth] || (head.byte & kFailed) != 0;
        step.result = (head.byte & kResultLeftOut) != 0 ? std::string(kLeftOut) : results_[head.depth];
        return kWord;
      default:
        step.detail.insert(
            0, std::to_string(head.number) + " calls, the first one:" + (step.detail.empty() ? "" : " "));
        return kWord;
    }
  }

  size_t ReadBegin(const Head& head, const char* place) {
    const char* name = nullptr;
    std::memcpy(&name, place + kWord, sizeof(name));
    step_at_[head.depth] = steps_.size();
    results_[head.depth].clear();
    failed_[head.depth] = false;
    StepReading& step = steps_.emplace_back();
    step.name.assign(name, head.byte);
    step.thread = thread_;
    step.depth = head.depth;
    step.start_us = head.number;
    step.duration_us = -1;
    return kWord + sizeof(name);
  }

  const std::string& thread_;
  std::vector<StepReading>& steps_;
  std::string detail_;
  // Of the step that is open at each depth:
  std::array<size_t, kMostDepth + 1> step_at_{};
  std::array<std::string, kMostDepth + 1> results_;
  std::array<bool, kMostDepth + 1> failed_{};
};

void Segment::Read(std::vector<StepReading>* steps) const {
  Reader reader(thread_, steps);
  size_t at = kFirstEntry;
  for (Chunk* chunk = oldest_; chunk != nullptr;) {
    // Before the chunk's entries: only a chunk that had a next one then has got all of its own.
    Chunk* const next = chunk->next.load(std::memory_order_acquire);
    reader.Read(std::exchange(chunk, next), std::exchange(at, 0));
  }
}

}  // namespace zem::timeline
