#pragma once

#include <memory>
#include <vector>

namespace zem::rpc {

/// Gathers bytes while callbacks run, and sends them when the scope around the callbacks ends.
class Flushable {
 public:
  virtual ~Flushable() = default;
  virtual void FlushGathered() = 0;
};

/// Gathers what is sent while callbacks run on this thread; each connection's bytes go out in one piece at
/// the end.
class FlushScope {
 public:
  FlushScope();
  ~FlushScope();
  FlushScope(const FlushScope&) = delete;
  FlushScope& operator=(const FlushScope&) = delete;

  /// The innermost scope of this thread, or null.
  static FlushScope* Current();
  void Add(std::shared_ptr<Flushable> sender);

 private:
  FlushScope* const outer_;
  std::shared_ptr<Flushable> first_;  // nearly always the only one
  std::vector<std::shared_ptr<Flushable>> others_;
};

}  // namespace zem::rpc
