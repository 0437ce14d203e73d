#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "app/livetrace/livetrace_session.h"
#include "platform/core/thread.h"

namespace zem::Tarvik {

/// Sends one capture file to the manager through the host's script, on a thread of its own, and then removes
/// the file.
///
/// Threads: Start, Join by one owner; Stop and done from any thread.
class LivetraceUploader {
 public:
  struct File {
    std::string local_path;
    /// Where on the manager; ends with a slash, and the upload's id follows.
    std::string target_folder;
  };
  /// Runs on the upload's thread, after the file has gone, unless the upload was stopped.
  using Completion = std::function<void()>;

  /// `command` is the script with its interpreter.
  LivetraceUploader(std::vector<std::string> command, File file, LivetraceSession::UploadTarget target,
                    Completion completion);
  /// Joins.
  ~LivetraceUploader();
  LivetraceUploader(const LivetraceUploader&) = delete;
  LivetraceUploader& operator=(const LivetraceUploader&) = delete;

  /// False when the system has no thread for it.
  [[nodiscard]] bool Start();
  /// Has the script interrupted within a second.  Does not wait.
  void Stop() { stop_ = true; }
  /// Nothing of it runs any more, so that Join does not wait.
  bool done() const { return done_; }
  void Join();

  const std::string& local_path() const { return file_.local_path; }
  /// Removes the file; a failure is logged.
  void RemoveFile() const;

 private:
  void Upload();
  /// What the script reads, with `id` as the upload's id.
  std::string Request(const std::string& id) const;

  const std::vector<std::string> command_;
  const File file_;
  const LivetraceSession::UploadTarget target_;
  const Completion completion_;
  std::atomic<bool> stop_{false};
  std::atomic<bool> done_{false};
  NativeThread thread_;
};

}  // namespace zem::Tarvik
