#pragma once

#include <atomic>
#include <functional>
#include <string>

#include "platform/core/thread.h"
#include "sim/control/json.h"

namespace zem::bench {

/// A peer's request and the wait for its outcome while the daemon is killed; it has a thread and a connection
/// of its own.
///
/// Threads: one owner.
class Background {
 public:
  /// The node as the work may use it.
  class Node {
   public:
    virtual ~Node() = default;
    /// Returns an empty text when the command was carried out, otherwise the reason.
    virtual std::string Try(const std::string& command, sim::Json* result = nullptr) = 0;
    /// Repeats the command until `good(result)`; returns the reason when it was cancelled first.
    virtual std::string Until(const std::string& command, const std::function<bool(const cJSON*)>& good) = 0;
  };
  /// The work: returns an empty text when it was done, otherwise the reason.
  using Work = std::function<std::string(Node&)>;

  /// `directory`: the node's folder.
  Background(const std::string& directory, Work work);
  ~Background();

  bool done() const { return done_; }
  /// Cancels the waits and returns the outcome.
  std::string End();

 private:
  std::atomic<bool> done_ = false;
  std::atomic<bool> cancelled_ = false;
  std::string outcome_;
  NativeThread thread_;
};

}  // namespace zem::bench
