#include "platform/timeline/operation.h"

#include <algorithm>
#include <array>
#include <deque>
#include <utility>

#include "platform/timeline/marks.h"
#include "platform/timeline/segment.h"

// Operations are in the ring from their begin, so that one that hangs can be asked about.  The ring has a
// share for each kind and one more for those that failed, which nothing but other failures pushes out;
// together they stay below kMostBytes.  Those under way are the last to go: in a storm the ones that hang are
// the oldest.

namespace zem::timeline {
namespace {

constexpr std::array<const char*, kKinds> kKindNames = {"host configuration", "host setting",
                                                        "logical switches", "VIF operation"};
constexpr size_t kMostOfKind = 128;
constexpr size_t kMostUnderWay = 1024;
constexpr int kLooks = 2;  // at operations under way, for one that has ended
constexpr size_t kMostFailed = 128;
constexpr size_t kLeastOfKind = 8;  // also when memory is short
constexpr size_t kMostBytes = size_t{8} << 20;
constexpr size_t kMostOperationBytes = size_t{64} << 10;
constexpr size_t kReserveBytes = size_t{16} << 10;  // of these, for what is important
constexpr size_t kLongestError = 1024;

std::atomic<size_t> all_bytes{0};
std::atomic<uint64_t> last_number{0};
// More operations than a share has when nothing is under way: each end makes room then.
std::atomic<bool> crowded{false};

struct Ring {
  std::mutex mutex;  // guards all below; before an operation's own
  std::array<std::deque<OperationPtr>, kKinds> kinds;
  std::deque<OperationPtr> failed;
  std::shared_ptr<const std::function<void(const OperationPtr&)>> failure_hook;
  std::shared_ptr<MarkTable> marks;

  // What leaves is destroyed by the caller, without the lock.
  void Shrink(std::vector<OperationPtr>* gone) {
    bool any_crowded = false;
    for (auto& kind : kinds) {
      ShrinkKind(&kind, gone);
      any_crowded = any_crowded || kind.size() > kMostOfKind;
    }
    crowded.store(any_crowded, std::memory_order_relaxed);
    while (failed.size() > kMostFailed) Drop(&failed, gone);
    size_t left = all_bytes.load(std::memory_order_relaxed);
    for (const auto& operation : *gone) left -= std::min(left, operation->bytes());
    for (std::deque<OperationPtr>* const share : {&kinds[3], &kinds[2], &kinds[1], &kinds[0], &failed}) {
      while (left > kMostBytes && share->size() > kLeastOfKind) {
        left -= std::min(left, share->front()->bytes());
        Drop(share, gone);
      }
    }
  }

  // Those under way go to the back, so that each call has few to look at.
  static void ShrinkKind(std::deque<OperationPtr>* kind, std::vector<OperationPtr>* gone) {
    for (int looks = 0; kind->size() > kMostOfKind;) {
      if (kind->size() <= kMostUnderWay && kind->front()->state() == State::kUnderWay) {
        if (++looks == kLooks) return;
        kind->push_back(std::move(kind->front()));
        kind->pop_front();
      } else {
        Drop(kind, gone);
      }
    }
  }

  static void Drop(std::deque<OperationPtr>* from, std::vector<OperationPtr>* gone) {
    gone->push_back(std::move(from->front()));
    from->pop_front();
  }
};

Ring& TheRing() {
  static Ring* const ring = new Ring;  // never destroyed: operations end until the process does
  return *ring;
}

// Differs for every thread of the process, also after one has ended.
uint64_t ThreadNumber() {
  static std::atomic<uint64_t> last{0};
  thread_local const uint64_t number = ++last;
  return number;
}

thread_local Segment* current_segment = nullptr;
// Beside the segment, so that the common question needs no reference to be counted.
thread_local OperationPtr current_operation;

}  // namespace

const char* KindName(Kind kind) { return kKindNames.at(static_cast<size_t>(kind)); }

Segment* CurrentSegment() { return current_segment; }

Operation::Operation(uint64_t number, Kind kind, std::string_view what,
                     std::initializer_list<std::string_view> keys)
    : number_(number),
      kind_(kind),
      what_(what),
      begun_(Clock::Process().Now()),
      begun_wall_(Clock::Process().WallNow()) {
  for (const std::string_view key : keys) keys_.Add(key);
}

Operation::~Operation() {
  Unmark();
  Segment::Release(first_segment_);
  all_bytes.fetch_sub(bytes_, std::memory_order_relaxed);
}

// Without the lock: whoever could end it or add a key has not got it yet.
void Operation::MarkIn(std::shared_ptr<MarkTable> table) {
  mark_ = table->Take(number_, kind_, begun_wall_, what_);
  if (mark_ == nullptr) return;
  marks_ = std::move(table);
  keys_.ForEach([this](std::string_view key) {
    MarkTable::AddKey(mark_, key);
    return true;
  });
}

void Operation::Unmark() {
  if (mark_ != nullptr) marks_->Free(std::exchange(mark_, nullptr));
}

bool Operation::Take(size_t size, bool important) {
  const size_t limit = important ? kMostOperationBytes : kMostOperationBytes - kReserveBytes;
  if (bytes_.load(std::memory_order_relaxed) + size > limit) return false;
  bytes_.fetch_add(size, std::memory_order_relaxed);
  all_bytes.fetch_add(size, std::memory_order_relaxed);
  return true;
}

// A thread that takes up the operation again goes on where it was: a configuration is handed to and fro more
// often than there is room for segments.
Segment* Operation::SegmentOfThread() {
  const uint64_t thread = ThreadNumber();
  {
    const std::lock_guard lock(mutex_);
    for (Segment* each = first_segment_; each != nullptr; each = each->next)
      if (each->thread_number == thread) return each;
  }
  Segment* const made = Segment::Make(*this);
  if (made == nullptr) {
    left_out_.fetch_add(1, std::memory_order_relaxed);
    return nullptr;
  }
  made->thread_number = thread;
  const std::lock_guard lock(mutex_);
  (last_segment_ == nullptr ? first_segment_ : last_segment_->next) = made;
  last_segment_ = made;
  return made;
}

void Operation::AddKey(std::string_view key) {
  const std::lock_guard lock(mutex_);
  key = keys_.Add(key);
  if (mark_ != nullptr && !key.empty()) MarkTable::AddKey(mark_, key);
}

bool Operation::End(std::string_view error) {
  const TimePoint now = Clock::Process().Now();
  const std::lock_guard lock(mutex_);
  if (state_ != State::kUnderWay) return false;
  state_ = error.empty() ? State::kDone : State::kFailed;
  error_ = error.substr(0, kLongestError);
  ended_ = now;
  Unmark();
  return true;
}

State Operation::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

bool Operation::Has(std::string_view key) const {
  const std::lock_guard lock(mutex_);
  return keys_.Has(key);
}

OperationReading Operation::Read() const {
  OperationReading reading;
  reading.number = number_;
  reading.kind = KindName(kind_);
  reading.what = what_;
  reading.begun = begun_wall_;
  reading.left_out = left_out_;
  const std::lock_guard lock(mutex_);
  keys_.ForEach([&](std::string_view key) {
    reading.keys.emplace_back(key);
    return true;
  });
  reading.state = state_;
  reading.error = error_;
  const TimePoint end = state_ == State::kUnderWay ? Clock::Process().Now() : ended_;
  reading.duration_us = std::chrono::duration_cast<std::chrono::microseconds>(end - begun_).count();
  for (const Segment* segment = first_segment_; segment != nullptr; segment = segment->next)
    segment->Read(&reading.steps);
  std::stable_sort(reading.steps.begin(), reading.steps.end(),
                   [](const StepReading& a, const StepReading& b) { return a.start_us < b.start_us; });
  return reading;
}

OperationPtr Begin(Kind kind, std::string_view what, std::initializer_list<std::string_view> keys) {
  auto operation = std::make_shared<Operation>(++last_number, kind, what, keys);
  std::vector<OperationPtr> gone;
  std::shared_ptr<MarkTable> marks;
  {
    Ring& ring = TheRing();
    const std::lock_guard lock(ring.mutex);
    ring.kinds[static_cast<size_t>(kind)].push_back(operation);
    ring.Shrink(&gone);
    marks = ring.marks;
  }
  if (marks) operation->MarkIn(std::move(marks));
  return operation;
}

void Finish(const OperationPtr& operation, std::string_view error) {
  if (!operation || !operation->End(error)) return;
  if (error.empty() && !crowded.load(std::memory_order_relaxed)) return;
  std::vector<OperationPtr> gone;
  std::shared_ptr<const std::function<void(const OperationPtr&)>> hook;
  {
    Ring& ring = TheRing();
    const std::lock_guard lock(ring.mutex);
    if (!error.empty()) {
      hook = ring.failure_hook;
      ring.failed.push_back(operation);
    }
    ring.Shrink(&gone);
  }
  if (hook) (*hook)(operation);
}

OperationPtr Current() { return current_operation; }

std::vector<OperationPtr> Find(std::string_view key, size_t most) {
  std::vector<OperationPtr> all;
  {
    Ring& ring = TheRing();
    const std::lock_guard lock(ring.mutex);
    for (const auto& kind : ring.kinds) all.insert(all.end(), kind.begin(), kind.end());
    all.insert(all.end(), ring.failed.begin(), ring.failed.end());
  }
  const auto newer = [](const OperationPtr& a, const OperationPtr& b) { return a->number() > b->number(); };
  std::sort(all.begin(), all.end(), newer);
  all.erase(std::unique(all.begin(), all.end()), all.end());
  if (!key.empty()) std::erase_if(all, [key](const OperationPtr& each) { return !each->Has(key); });
  if (all.size() > most) all.resize(most);
  return all;
}

void SetFailureHook(std::function<void(const OperationPtr& operation)> hook) {
  auto shared =
      hook ? std::make_shared<const std::function<void(const OperationPtr&)>>(std::move(hook)) : nullptr;
  const std::lock_guard lock(TheRing().mutex);
  TheRing().failure_hook.swap(shared);
}

void SetMarks(std::shared_ptr<MarkTable> marks) {
  const std::lock_guard lock(TheRing().mutex);
  TheRing().marks.swap(marks);
}

void Clear() {
  std::vector<OperationPtr> gone;
  Ring& ring = TheRing();
  const std::lock_guard lock(ring.mutex);
  for (auto& kind : ring.kinds) {
    gone.insert(gone.end(), kind.begin(), kind.end());
    kind.clear();
  }
  ring.failed.clear();
}

Scope::Scope(OperationPtr operation)
    : operation_(std::move(operation)),
      outer_(std::move(current_operation)),
      outer_segment_(current_segment) {
  current_segment = operation_ ? operation_->SegmentOfThread() : nullptr;
  current_operation = operation_;
}

Scope::~Scope() {
  current_segment = outer_segment_;
  current_operation = std::move(outer_);
}

}  // namespace zem::timeline
