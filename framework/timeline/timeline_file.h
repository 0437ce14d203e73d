#pragma once

#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "framework/timeline/mark_file.h"
#include "platform/core/condition.h"
#include "platform/core/thread.h"
#include "platform/timeline/operation.h"

namespace zem::Tarvik {

/// The failed operations of this life of the process and of earlier ones, in a file: a line of JSON each, in
/// the order in which they failed.  One that takes more than two seconds is written down meanwhile, and what
/// is under way when the daemon stops is written down then, so that a daemon that hangs can be killed and
/// explained.  A thread of its own writes, so nobody waits for the disk.  Of what had begun within the last
/// three seconds before a kill, the marks (MarkFile) still tell that it was under way, though not its steps;
/// lost is what failed in the moment before.
///
/// Limits: the file has 1 MiB at most, its older half goes; 128 operations wait to be written, the oldest is
/// given up.  Errors: what cannot be read is skipped; a file that cannot be written is logged once until it
/// can.
/// Threads: all operations from any.
class TimelineFile {
 public:
  /// Reads the file, adds what the end of the life before has interrupted, and follows the operations that
  /// fail from now on.  `marks_path` is the file of the marks; empty for none.
  explicit TimelineFile(std::string path, const std::string& marks_path = {});
  /// Writes what waits.
  ~TimelineFile();
  TimelineFile(const TimelineFile&) = delete;
  TimelineFile& operator=(const TimelineFile&) = delete;

  /// Operations of earlier lives that failed, or had not ended when they were last written down; newest
  /// first.
  const std::vector<timeline::OperationReading>& earlier() const { return earlier_; }

 private:
  void Load();
  /// Adds what was marked when the life before ended.
  void TakeInterrupted();
  void Write();
  /// Writes down what has been under way for `age`, and the end of what was written down so.
  void SaveUnderWay(Duration age);
  void Save(const timeline::Operation& operation);
  /// Returns why the line could not be written; empty when it was.
  std::string Append(const std::string& line);

  const std::string path_;
  std::vector<timeline::OperationReading> earlier_;
  std::optional<MarkFile> marks_;
  std::vector<timeline::OperationPtr> long_;  // written down while under way; by the thread
  bool broken_ = false;                       // by the thread
  bool torn_ = false;                         // the last line has no end; by the thread
  std::mutex mutex_;                          // guards what follows; a leaf
  Condition changed_;
  std::deque<timeline::OperationPtr> waiting_;
  bool stopped_ = false;
  NativeThread writer_;
};

}  // namespace zem::Tarvik
