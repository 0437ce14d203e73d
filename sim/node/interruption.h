#pragma once

#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace zem::sim {

/// What has to be cleared away when this program is ended by SIGINT, SIGTERM or SIGHUP.
///
/// Threads: any.
class Interruption {
 public:
  /// The first call makes the calling thread, and those that it starts, leave these signals to a thread of
  /// this object.
  static Interruption& Get();
  /// In a new process: the signals do again what they do by default.
  static void LetPass();

  using Held = std::unique_lock<std::mutex>;
  /// While it is held, an interruption waits: what is made meanwhile is added before anything is cleared.
  Held Hold() { return Held(mutex_); }

  /// `clear` runs at an interruption, those that were added last first, unless the returned object is gone by
  /// then.
  std::shared_ptr<void> Add(const Held& held, std::function<void()> clear);
  std::shared_ptr<void> Add(std::function<void()> clear) { return Add(Hold(), std::move(clear)); }

 private:
  Interruption();
  void Wait();

  std::mutex mutex_;  // guards the list; held to the end while it is cleared
  std::list<std::function<void()>> clear_;
};

/// A folder that ends with this object, or with this program.
class ScratchFolder {
 public:
  /// In the folder for temporary files.  Throws std::runtime_error when it cannot be made.
  explicit ScratchFolder(const std::string& name);
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::string& path() const { return path_; }
  /// The path of a new file with this text.
  std::string Write(const std::string& name, const std::string& text) const;

 private:
  std::string path_;
  std::shared_ptr<void> ending_;
};

}  // namespace zem::sim
