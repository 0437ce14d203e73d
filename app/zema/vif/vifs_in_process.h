#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "platform/core/condition.h"

namespace zem::zema {

class VifsInProcess;

/// An operation's place among those on its VIF, from its arrival until `Leave` or its end.
///
/// Threads: one owner at a time.  It keeps the table alive: a request may outlive the handler that it was
/// for.
class VifTurn {
 public:
  VifTurn(std::shared_ptr<VifsInProcess> vifs, std::string vif, uint64_t number)
      : vifs_(std::move(vifs)), vif_(std::move(vif)), number_(number) {}
  ~VifTurn() { Leave(); }
  VifTurn(const VifTurn&) = delete;
  VifTurn& operator=(const VifTurn&) = delete;

  /// Waits up to half a minute for the operations before this one.  Returns false when they have not ended by
  /// then.
  [[nodiscard]] bool Await();
  /// Lets the next operation run.  Calling it twice has no effect.
  void Leave();

 private:
  friend class VifsInProcess;

  const std::shared_ptr<VifsInProcess> vifs_;
  const std::string vif_;
  const uint64_t number_;
  bool entered_ = false;
  bool left_ = false;
};

/// The operations on each VIF in the order in which they arrived: one runs at a time, the others wait for it.
/// The table has one place for each request, so the limit of the request queue limits it as well.
///
/// Threads: all operations from any.  Owned by a shared pointer.
class VifsInProcess : public std::enable_shared_from_this<VifsInProcess> {
 public:
  /// Takes the last place on the VIF.  Returns null for an empty VIF, which excludes nobody.
  std::shared_ptr<VifTurn> TakeTurn(const std::string& vif);
  /// Takes the only place on the VIF.  Returns null when another operation has a place.
  std::shared_ptr<VifTurn> TakeOnlyTurn(const std::string& vif);

  /// Ends all waits, which then fail.
  void EndWaits();

 private:
  friend class VifTurn;

  std::shared_ptr<VifTurn> TakeLocked(const std::string& vif);
  bool Await(VifTurn& turn);
  void Leave(VifTurn& turn);

  std::mutex mutex_;  // guards what follows
  Condition changed_;
  uint64_t last_ = 0;
  std::map<std::string, std::deque<uint64_t>> turns_;
  bool ended_ = false;
};

}  // namespace zem::zema
