#pragma once

#include <map>
#include <memory>
#include <string>

#include "framework/tasks/copy_on_write_map.h"

namespace zem::zema {

class LumCommands;
struct VifRequest;

/// VIFs whose site configuration the manager waits for, each with the request that fetches it.
///
/// Threads: all operations from any thread; GetVifsForSiteConfig asks the host and may block.
/// Ownership: holds `lum` by reference.
class SiteConfigList {
 public:
  explicit SiteConfigList(LumCommands& lum) : lum_(lum) {}

  /// Asks the host for its VIFs at start.  Returns false when the host does not answer.
  bool GetVifsForSiteConfig();
  void AddVifForSiteConfig(const std::string& vif, std::shared_ptr<const VifRequest> request);
  void RemoveVifForSiteConfig(const std::string& vif);
  /// Returns null when the manager does not wait for the VIF.  A caller that serves the request takes a copy,
  /// so that one try leaves nothing in the next.
  std::shared_ptr<const VifRequest> LookupVifRequest(const std::string& vif) const;
  /// All requests, by VIF.
  std::shared_ptr<const std::map<std::string, std::shared_ptr<const VifRequest>>> VifsForSiteConfig() const;

 private:
  LumCommands& lum_;
  CopyOnWriteMap<std::string, std::shared_ptr<const VifRequest>> vifs_to_fetch_site_config_;
};

}  // namespace zem::zema
