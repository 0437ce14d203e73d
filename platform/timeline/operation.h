#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/core/clock.h"
#include "platform/timeline/key_list.h"

/// Timelines: what became of each operation of the agent (a host configuration, an operation on a VIF, ...),
/// step by step through every thread, kept in memory so that an operator can ask why.
namespace zem::timeline {

/// What an operation is of.  Each kind has its own share of the memory, so that a storm of one does not push
/// out the last ones of another.
enum class Kind : uint8_t { kHostConfig, kHostSetting, kLogicalSwitch, kVif };
inline constexpr size_t kKinds = 4;
const char* KindName(Kind kind);

/// A step as it is read; times in microseconds from the operation's begin.
struct StepReading {
  std::string name;
  std::string detail;
  std::string result;
  std::string thread;
  int64_t start_us = 0;
  int64_t duration_us = 0;  ///< -1 while it runs
  uint32_t depth = 0;       ///< how many steps of its thread were open around it
  bool failed = false;
};

enum class State : uint8_t { kUnderWay, kDone, kFailed };

/// An operation as it is read.
struct OperationReading {
  uint64_t number = 0;  ///< counts the operations of the process, from 1
  std::string kind;
  std::string what;
  std::vector<std::string> keys;
  WallTime begun;
  int64_t duration_us = 0;  ///< until now while it is under way
  State state = State::kUnderWay;
  std::string error;
  uint64_t left_out = 0;           ///< steps for which there was no room
  std::vector<StepReading> steps;  ///< by their start
  bool earlier_life = false;
};

class MarkTable;
struct MarkSlot;
class Segment;

/// One operation and its steps.
///
/// Threads: all operations from any.  Its threads write without locks, each into a segment of its own.
/// Limits: 64 KiB of steps and texts, 128 keys, 32 steps in one another; a text is cut at 240 bytes, a key at
/// 128.
class Operation {
 public:
  /// Only `Begin` makes one.
  Operation(uint64_t number, Kind kind, std::string_view what, std::initializer_list<std::string_view> keys);
  ~Operation();
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  /// One more id or name by which it is found.  An empty one is ignored.
  void AddKey(std::string_view key);

  bool Has(std::string_view key) const;
  uint64_t number() const { return number_; }
  size_t bytes() const { return bytes_; }
  /// Since its begin.
  Duration age() const { return Clock::Process().Now() - begun_; }
  State state() const;
  Kind kind() const { return kind_; }
  OperationReading Read() const;

 private:
  friend class Scope;
  friend std::shared_ptr<Operation> Begin(Kind kind, std::string_view what,
                                          std::initializer_list<std::string_view> keys);
  friend void Finish(const std::shared_ptr<Operation>& operation, std::string_view error);
  friend class Segment;

  /// Until its end it is marked in `table`.  Before anybody else has it.
  void MarkIn(std::shared_ptr<MarkTable> table);
  void Unmark();
  /// False when it had ended before.
  bool End(std::string_view error);
  /// The segment of the calling thread; null when there is no room for one.
  Segment* SegmentOfThread();
  /// False when the operation has no room for `size` more bytes; `important` may use a reserve.
  bool Take(size_t size, bool important);

  const uint64_t number_;
  const Kind kind_;
  const std::string what_;
  const TimePoint begun_;
  const WallTime begun_wall_;
  std::atomic<size_t> bytes_{0};
  std::atomic<uint64_t> left_out_{0};
  mutable std::mutex mutex_;  // guards what follows; a leaf
  KeyList keys_;
  Segment* first_segment_ = nullptr;  // each has the one after it
  Segment* last_segment_ = nullptr;
  State state_ = State::kUnderWay;
  std::string error_;
  TimePoint ended_;
  std::shared_ptr<MarkTable> marks_;
  MarkSlot* mark_ = nullptr;
};

using OperationPtr = std::shared_ptr<Operation>;

/// Begins an operation, which from now on is found by each of `keys`.
OperationPtr Begin(Kind kind, std::string_view what, std::initializer_list<std::string_view> keys);

/// Ends an operation: with an error unless `error` is empty.  Only the first call has an effect, and null
/// none. What its threads still do afterwards is added to its steps.
void Finish(const OperationPtr& operation, std::string_view error);

/// The operation for which this thread works; null outside of one.
OperationPtr Current();

/// Every operation that `key` names, or all without a key; newest first, at most `most`.
std::vector<OperationPtr> Find(std::string_view key, size_t most);

/// Called once for each operation that fails, on the thread that ends it: it may only take leaf locks.  Null:
/// none.
void SetFailureHook(std::function<void(const OperationPtr& operation)> hook);

/// Operations that begin from now on are marked in `marks` until they end.  Null: nowhere.
void SetMarks(std::shared_ptr<MarkTable> marks);

/// Forgets all operations; for tests.
void Clear();

/// While it exists, the thread works for `operation`: its steps go there.  Null: for none.  The order of a
/// stack.
class Scope {
 public:
  explicit Scope(OperationPtr operation);
  ~Scope();
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;

 private:
  OperationPtr operation_;
  OperationPtr outer_;
  Segment* outer_segment_;
};

/// An operation on its way to another thread, and since when.  Made where the work is handed over.
class Carried {
 public:
  Carried() : operation_(Current()) {
    if (operation_) since_ = Clock::Process().Now();
  }
  explicit Carried(OperationPtr operation) : operation_(std::move(operation)) {
    if (operation_) since_ = Clock::Process().Now();
  }
  const OperationPtr& operation() const { return operation_; }
  TimePoint since() const { return since_; }

 private:
  OperationPtr operation_;
  TimePoint since_;
};

}  // namespace zem::timeline
