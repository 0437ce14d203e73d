#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

namespace orlane::zem::covedb {
class MonitorUpdateMsg;
class SecurityFeatureToggleMsg;
}  // namespace orlane::zem::covedb

namespace Ctxt {

/// A security feature that the manager turns on and off.
struct SecurityFeature {
  uint32_t number;
  /// The first word of its lines.
  const char* prefix;
  /// Its name inside its lines.
  const char* name;
  /// The tag of an operation that nobody knows.
  int unknown_operation_tag;
};

/// Whether a feature is on, as the store's feature toggles say: the last one that was set decides, until it
/// is deleted.
///
/// Threads: all operations from any thread; updates take effect one after the other.
class FeatureToggle {
 public:
  using Update = orlane::zem::covedb::MonitorUpdateMsg;

  /// What a change leads to.  Called with the toggle's lock held, so that the effects of two changes cannot
  /// mix; neither may wait or give the toggle an update.
  struct Effects {
    /// The new state is in force and not logged yet.  May be empty.
    std::function<void(bool enabled)> changed;
    /// The new state is in force and logged.
    std::function<void(bool enabled)> apply;
  };

  FeatureToggle(const SecurityFeature& feature, Effects effects);

  bool enabled() const { return enabled_; }

  /// Off, without an effect: the client starts.
  void Reset();
  /// An update of the store's feature toggles.
  void Take(const Update& update);

  /// The store begins to send all toggles that it has.
  void StoreBegins();
  /// It has sent them: the toggle that decided counts as deleted if it was not among them.
  void StoreComplete();

 private:
  void Set(const orlane::zem::covedb::SecurityFeatureToggleMsg& toggle, const std::string& uuid);
  void Clear(const std::string& uuid);
  void Change(bool enabled);

  const SecurityFeature feature_;
  const Effects effects_;
  std::atomic<bool> enabled_{false};

  std::mutex mutex_;  // guards what follows, and orders the changes
  std::string toggle_uuid_;
  bool seen_ = true;  // since the store began to send all that it has
};

}  // namespace Ctxt
