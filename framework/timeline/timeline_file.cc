#include "framework/timeline/timeline_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "framework/log/log.h"
#include "framework/process/atomic_file.h"
#include "framework/process/error_text.h"
#include "framework/timeline/timeline_json.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/unique_fd.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};
constexpr size_t kMostBytes = size_t{1} << 20;
constexpr size_t kMostWaiting = 128;
constexpr auto kLook = std::chrono::seconds(1);
constexpr auto kLong = std::chrono::seconds(2);
constexpr size_t kMostLong = 64;
constexpr mode_t kMode = 0600;  // it names VMs and their files

std::vector<std::string_view> Lines(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    if (end != 0) lines.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

}  // namespace

TimelineFile::TimelineFile(std::string path, const std::string& marks_path) : path_(std::move(path)) {
  Load();
  if (!marks_path.empty()) {
    marks_.emplace(marks_path);
    TakeInterrupted();
    // Only now: a start that is killed before has them still.
    marks_->BeginAnew();
  }
  writer_ = NativeThread({.name = "timelines"}, [this] { Write(); });
  timeline::SetFailureHook([this](const timeline::OperationPtr& operation) {
    const std::lock_guard lock(mutex_);
    if (waiting_.size() == kMostWaiting) waiting_.pop_front();
    waiting_.push_back(operation);
    changed_.NotifyOne();
  });
}

TimelineFile::~TimelineFile() {
  timeline::SetFailureHook(nullptr);
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    changed_.NotifyOne();
  }
  writer_.Join();
}

void TimelineFile::Load() {
  std::string bytes;
  if (const int error = ReadFileWhole(path_, 2 * kMostBytes, &bytes); error != 0) {
    if (error != ENOENT) ZLOG_WARN("[%s] %s: %s", __func__, path_.c_str(), Util::GetErrMsg(error).c_str());
    return;
  }
  torn_ = !bytes.empty() && bytes.back() != '\n';
  size_t skipped = 0;
  for (const std::string_view line : Lines(bytes)) {
    if (auto operation = ReadTimeline(line)) {
      operation->earlier_life = true;
      // The last line of an operation counts.
      std::erase_if(earlier_, [&](const timeline::OperationReading& before) {
        return before.number == operation->number && before.begun == operation->begun;
      });
      if (operation->state != timeline::State::kDone) earlier_.push_back(std::move(*operation));
    } else {
      ++skipped;
    }
  }
  std::reverse(earlier_.begin(), earlier_.end());
  if (skipped != 0) ZLOG_WARN("[%s] %zu lines of %s cannot be read", __func__, skipped, path_.c_str());
}

void TimelineFile::TakeInterrupted() {
  std::string lines;
  std::string error;
  // In pieces that leave the file its bound.
  const auto write = [&] {
    std::string failed = lines.empty() ? "" : Append(lines);
    if (!failed.empty()) error = std::move(failed);
    lines.clear();
  };
  for (const timeline::OperationReading& marked : marks_->interrupted()) {
    const auto known = std::find_if(earlier_.begin(), earlier_.end(), [&](const auto& each) {
      return each.number == marked.number && each.begun == marked.begun;
    });
    timeline::OperationReading interrupted = marked;
    if (known != earlier_.end()) {
      // It failed, and was killed before the mark went; or an earlier start has told of it.
      if (known->state == timeline::State::kFailed) continue;
      // It was written down while it ran, with its steps.
      interrupted.steps = std::move(known->steps);
      interrupted.left_out = known->left_out;
      interrupted.duration_us = std::max(interrupted.duration_us, known->duration_us);
      earlier_.erase(known);
    }
    lines += TimelineJson(interrupted, true).Text() + '\n';
    earlier_.insert(earlier_.begin(), std::move(interrupted));
    if (lines.size() > kMostBytes / 4) write();
  }
  write();
  if (error.empty()) return;
  ZLOG_WARN("[%s] what was interrupted is known to this life alone: %s: %s", __func__, path_.c_str(),
            error.c_str());
}

void TimelineFile::Write() {
  const LoopThread loop("timelines", LoopKind::kWorker);
  std::unique_lock lock(mutex_);
  for (;;) {
    if (marks_) marks_->Alive();
    const bool any = changed_.WaitFor(lock, kLook, [this] { return stopped_ || !waiting_.empty(); });
    if (any && waiting_.empty()) break;
    timeline::OperationPtr operation;
    if (any) {
      operation = std::move(waiting_.front());
      waiting_.pop_front();
    }
    lock.unlock();
    {
      const LoopStep step("save");
      if (operation) {
        std::erase(long_, operation);
        Save(*operation);
      } else {
        SaveUnderWay(kLong);
      }
    }
    lock.lock();
  }
  lock.unlock();
  SaveUnderWay(Duration::zero());
}

void TimelineFile::SaveUnderWay(Duration age) {
  std::erase_if(long_, [this](const timeline::OperationPtr& each) {
    if (each->state() == timeline::State::kUnderWay) return false;
    // One that failed is written for that.
    if (each->state() == timeline::State::kDone) Save(*each);
    return true;
  });
  for (const timeline::OperationPtr& each : timeline::Find({}, SIZE_MAX)) {
    if (each->state() != timeline::State::kUnderWay || each->age() < age || long_.size() >= kMostLong)
      continue;
    if (std::find(long_.begin(), long_.end(), each) != long_.end()) continue;
    Save(*each);
    long_.push_back(each);
  }
}

void TimelineFile::Save(const timeline::Operation& operation) {
  std::string line;
  try {
    line = TimelineJson(operation.Read(), true).Text() + '\n';
  } catch (const std::bad_alloc&) {
    ZLOG_WARN("[%s] no memory for a timeline of %zu bytes", __func__, operation.bytes());
    return;
  }
  const std::string error = Append(line);
  if (!error.empty() && !broken_) {
    ZLOG_WARN("[%s] failed operations are not kept for the next start: %s: %s", __func__, path_.c_str(),
              error.c_str());
  }
  broken_ = !error.empty();
}

std::string TimelineFile::Append(const std::string& line) {
  UniqueFd fd(
      ::open(path_.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kMode));
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0) return Util::GetErrMsg(errno);
  if (!S_ISREG(status.st_mode)) return "not a file";
  if (static_cast<size_t>(status.st_size) + line.size() > kMostBytes) {
    std::string bytes;
    std::string error;
    if (const int unread = ReadFileWhole(path_, 2 * kMostBytes, &bytes); unread != 0) {
      ZLOG_WARN("[%s] %s begins anew: %s", __func__, path_.c_str(), Util::GetErrMsg(unread).c_str());
      bytes.clear();
    }
    const size_t half = bytes.find('\n', bytes.size() > kMostBytes / 2 ? bytes.size() - kMostBytes / 2 : 0);
    bytes.erase(0, half == std::string::npos ? bytes.size() : half + 1);
    torn_ = false;
    static_cast<void>(WriteFileWhole(path_, bytes + line, &error, kMode));
    return error;
  }
  const std::string text = (torn_ ? "\n" : "") + line;
  const ssize_t written = ::write(fd.get(), text.data(), text.size());
  if (written < 0) return Util::GetErrMsg(errno);
  if (written == static_cast<ssize_t>(text.size())) {
    torn_ = false;
    return "";
  }
  torn_ = torn_ || written > 0;
  return Util::GetErrMsg(ENOSPC);
}

}  // namespace zem::Tarvik
