#pragma once

#include <mutex>
#include <set>
#include <string>

#include "platform/core/condition.h"

namespace zem::zema {

/// The VIFs on which an operation runs: one at a time on each.
///
/// Threads: all operations from any.
class VifsInProcess {
 public:
  /// A VIF that stays in the set while this lives; an empty VIF excludes nobody.
  class Scope {
   public:
    /// With `wait` up to half a minute for the operation before; without it gives way at once.
    Scope(VifsInProcess& vifs, const std::string& vif, bool wait)
        : vifs_(vifs), vif_(vif), entered_(vif.empty() || vifs.Enter(vif, wait)) {}
    ~Scope() {
      if (entered_ && !vif_.empty()) vifs_.Leave(vif_);
    }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    bool entered() const { return entered_; }

   private:
    VifsInProcess& vifs_;
    const std::string vif_;
    const bool entered_;
  };

  /// Nobody waits any more.
  void EndWaits();

 private:
  bool Enter(const std::string& vif, bool wait);
  void Leave(const std::string& vif);

  std::mutex mutex_;  // guards what follows
  Condition left_;
  std::set<std::string> vifs_;
  bool ended_ = false;
};

}  // namespace zem::zema
