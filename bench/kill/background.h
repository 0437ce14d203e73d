#pragma once

#include <atomic>
#include <functional>
#include <string>

#include "platform/core/thread.h"
#include "sim/control/json.h"

namespace zem::bench {

/// What a peer asks for and waits for while the daemon is killed: it runs on a thread and a connection of its
/// own.
///
/// Threads: one owner.
class Background {
 public:
  /// What the work uses.
  class Node {
   public:
    virtual ~Node() = default;
    /// Empty when it was done, else the reason.
    virtual std::string Try(const std::string& command, sim::Json* result = nullptr) = 0;
    /// Again and again until `good(result)`; the reason when it was cancelled before.
    virtual std::string Until(const std::string& command, const std::function<bool(const cJSON*)>& good) = 0;
  };
  /// Empty when it was done, else the reason.
  using Work = std::function<std::string(Node&)>;

  /// `directory`: the node's.
  Background(const std::string& directory, Work work);
  ~Background();

  bool done() const { return done_; }
  /// Ends its waits, and gives what has become of it.
  std::string End();

 private:
  std::atomic<bool> done_ = false;
  std::atomic<bool> cancelled_ = false;
  std::string outcome_;
  NativeThread thread_;
};

}  // namespace zem::bench
