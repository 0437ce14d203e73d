#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "framework/log/logger.h"

namespace zem::test {

/// Keeps the lines that the process logs while the object exists, instead of sending them to syslog; only one
/// object at a time.  During that time the logger's level is `level`.
///
/// Threads: all operations from any thread.  Construct and destroy it while no other thread logs; otherwise
/// some lines may go to syslog.
class LogCapture {
 public:
  explicit LogCapture(LibraryLogLevel level = kLogTrace)
      : level_before_(Logger::logLevel.exchange(static_cast<uint32_t>(level))) {
    Store().Clear();
    emitter_before_ = Logger::SetEmitter([](int priority, const char* line) { Store().Add(priority, line); });
    InstallLibraryLogBridge();
  }
  ~LogCapture() {
    Logger::SetEmitter(emitter_before_);
    Logger::logLevel.store(level_before_);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// Whole lines, beginning with "ZEM", in the order in which they were logged.
  std::vector<std::string> Lines() const { return Store().Lines(); }
  /// Only the texts after the structured data.
  std::vector<std::string> Texts() const {
    std::vector<std::string> texts = Lines();
    for (std::string& line : texts) {
      const size_t end = line.find("] ");
      if (end != std::string::npos) line.erase(0, end + 2);
    }
    return texts;
  }
  std::vector<int> Priorities() const { return Store().Priorities(); }
  bool Contains(std::string_view part) const { return Count(part) > 0; }
  size_t Count(std::string_view part) const {
    const std::vector<std::string> lines = Lines();
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [part](const std::string& line) {
      return line.find(part) != std::string::npos;
    }));
  }
  void Clear() { Store().Clear(); }

 private:
  class Storage {
   public:
    void Add(int priority, const char* line) {
      std::lock_guard lock(mutex_);
      priorities_.push_back(priority);
      lines_.emplace_back(line);
    }
    void Clear() {
      std::lock_guard lock(mutex_);
      priorities_.clear();
      lines_.clear();
    }
    std::vector<std::string> Lines() const {
      std::lock_guard lock(mutex_);
      return lines_;
    }
    std::vector<int> Priorities() const {
      std::lock_guard lock(mutex_);
      return priorities_;
    }

   private:
    mutable std::mutex mutex_;  // guards all below
    std::vector<int> priorities_;
    std::vector<std::string> lines_;
  };
  static Storage& Store() {
    static Storage* const storage = new Storage;
    return *storage;
  }

  const uint32_t level_before_;
  Logger::Emitter emitter_before_ = nullptr;
};

}  // namespace zem::test
