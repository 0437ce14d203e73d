#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "app/zema/proxy/lum_reply.h"
#include "framework/tasks/copy_on_write_map.h"

namespace zem::zema {

class LumCommands;
class VifIndex;

/// The host switch of a transport zone; both texts are empty when there is none.
struct HostSwitchInfo {
  std::string dvs;
  /// "KLN" or "NVS".
  std::string kind;
};

/// Maps each transport zone to its switch on this host.
///
/// Threads: all operations from any thread; one that asks the host may block, so none from a provider's.
/// Ownership: holds both by reference.
class TransportZones {
 public:
  /// `index` is invalidated when the set of switches changes.
  TransportZones(LumCommands& lum, VifIndex& index) : lum_(lum), index_(index) {}

  /// Asks the host for its zones.  Returns false when the host does not answer: the known zones stay, and the
  /// next lookup of an unknown zone asks again.
  bool CacheTzToDvsMapping();
  void SetTzToDvsCache(const std::vector<TzDvs>& list);
  /// Returns an empty text for an unknown zone.
  std::string GetDvsIdForTz(const std::string& zone);
  HostSwitchInfo GetHostSwitchInfoForTz(const std::string& zone);
  /// The switches of all zones, each once, sorted.
  std::vector<std::string> Switches() const;

 private:
  std::optional<HostSwitchInfo> FindZone(const std::string& zone);

  LumCommands& lum_;
  VifIndex& index_;
  CopyOnWriteMap<std::string, HostSwitchInfo> tz_to_dvs_;
  std::atomic<bool> zones_unanswered_{false};
};

}  // namespace zem::zema
