#pragma once

#include "app/zema/ports/port_changes.h"
#include "app/zema/ports/port_creation.h"
#include "app/zema/ports/port_data_files.h"
#include "app/zema/ports/port_properties.h"
#include "app/zema/ports/port_search.h"
#include "app/zema/ports/site_config_list.h"
#include "app/zema/ports/transport_zones.h"
#include "app/zema/ports/vif_holders.h"
#include "app/zema/ports/vif_index.h"

namespace zem::zema {

/// The agent's operations on the ports of the host's switches, one part for each subject.  The manager owns
/// the parts; a caller that needs one part takes only that one.
///
/// Threads and errors: each part documents its own.
/// Ownership: holds its arguments by reference.
class PortOpsManager {
 public:
  PortOpsManager(SwitchLibrary& library, LumCommands& lum, HostIdentity& host)
      : zones_(lum, index_),
        site_configs_(lum),
        properties_(library, index_),
        files_(library, properties_, host),
        holders_(library, properties_, zones_, index_),
        search_({library, zones_, index_, holders_, properties_, files_}),
        creation_(library, zones_, properties_, files_),
        changes_({library, zones_, index_, holders_, properties_, files_}) {}
  PortOpsManager(const PortOpsManager&) = delete;
  PortOpsManager& operator=(const PortOpsManager&) = delete;

  TransportZones& zones() { return zones_; }
  SiteConfigList& site_configs() { return site_configs_; }
  PortProperties& properties() { return properties_; }
  PortDataFiles& files() { return files_; }
  VifHolders& holders() { return holders_; }
  PortSearch& search() { return search_; }
  PortCreation& creation() { return creation_; }
  PortChanges& changes() { return changes_; }
  const VifIndex& index() const { return index_; }

 private:
  VifIndex index_;
  TransportZones zones_;
  SiteConfigList site_configs_;
  PortProperties properties_;
  PortDataFiles files_;
  VifHolders holders_;
  PortSearch search_;
  PortCreation creation_;
  PortChanges changes_;
};

}  // namespace zem::zema
