#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/zema/ports/port_location.h"
#include "app/zema/proxy/lum_reply.h"
#include "framework/tasks/copy_on_write_map.h"

namespace zem::zema {

class DvsData;
class LumCommands;
class SwitchLibrary;
class VifIndex;
struct PortConfigSpec;
struct PortFileEntry;
struct VifRequest;

/// A switch as a transport zone has it; empty texts for none.
struct HostSwitchInfo {
  std::string dvs;
  /// "KLN" or "NVS".
  std::string kind;
};

/// The ports of the host's switches: made, found, cleared, brought back from the files beside their VMs; and
/// which switch a transport zone is on this host.
///
/// Threads: all operations from any thread; those that need the library or files may block, so none from a
/// provider's.  Sequences of changes to one port are kept apart by their callers.
/// Ownership: holds both by reference.
/// Errors: -1 with the reason in `error`, which may be null where it has a default.  Nothing throws for a
/// failure of the switch.
class PortOpsManager {
 public:
  /// This host's id; nothing while it has none.
  using HostId = std::function<std::optional<std::string>()>;

  PortOpsManager(
      SwitchLibrary& library, LumCommands& lum, HostId host_id = [] { return std::nullopt; });
  ~PortOpsManager();
  PortOpsManager(const PortOpsManager&) = delete;
  PortOpsManager& operator=(const PortOpsManager&) = delete;

  // --- zones

  /// Asks the host.  False when it does not answer: what was known stays, and the next unknown zone asks
  /// again.
  bool CacheTzToDvsMapping();
  void SetTzToDvsCache(const std::vector<TzDvs>& list);
  /// Empty for an unknown zone.
  std::string GetDvsIdForTz(const std::string& zone);
  HostSwitchInfo GetHostSwitchInfoForTz(const std::string& zone);

  // --- VIFs whose site configuration the manager waits for

  /// Asks the host at start.  False when it does not answer.
  bool GetVifsForSiteConfig();
  void AddVifForSiteConfig(const std::string& vif, std::shared_ptr<const VifRequest> request);
  void RemoveVifForSiteConfig(const std::string& vif);
  /// Null for none.  Whoever serves it takes a copy, so that one try leaves nothing to the next.
  std::shared_ptr<const VifRequest> LookupVifRequest(const std::string& vif) const;
  std::shared_ptr<const std::map<std::string, std::shared_ptr<const VifRequest>>> VifsForSiteConfig() const;

  // --- whole ports; which port a VIF is on is kept in an index (VifIndex)

  /// Reads all ports again.  False when not all could be read: the next search does it.  After something
  /// that may have changed ports without this object.
  bool RefreshVifIndex();
  /// The next search goes through all ports: the host may have changed any.
  void ForgetVifIndex();
  /// The host may have put the VIF on a port itself: the next search for it goes through all ports.
  void DoubtVif(const std::string& vif);

  /// Makes the port, or brings an existing one up to date, and saves its file.  `gcf_path` is that of the
  /// VM's configuration file, or a word without "/" for a port without VM ("knlnic").  0, or not; a file that
  /// cannot be written is logged and no failure.
  int CreatePort(const PortConfigSpec& spec, const std::string& vif, const std::string& gcf_path, bool block,
                 std::string* error);

  /// Looks for the VIF's port on the switches, then in the files of the VM; the port of the file that says it
  /// is on its switch again then.  An empty `gcf_path` becomes the directory of the VM whose port it is.
  int FindPortByVifUuid(const std::string& vif, const std::string& ls, std::string* gcf_path,
                        PortLocation* found, std::string* error);

  /// The ports of that key: a key is unique on its switch alone.
  std::vector<PortLocation> PortsOfKey(const std::string& port) const;

  /// Looks for the port that the VIF had before, for what is written on it, in the files of the VM alone;
  /// puts it on the switch of `new_zone` if it is not there.
  int FindPortToFetchVMTags(const std::string& vif, const std::string& ls, const std::string& gcf_path,
                            const std::string& new_zone, PortLocation* found, std::string* error);

  /// Takes the VIF off the port when the port belongs to the logical switch.  With `force_find` all switches
  /// are searched when the zone, the port or its state cannot be had, or the port holds another VIF.  0 also
  /// when there was nothing to do.
  int ClearVifFromPort(const std::string& zone, const std::string& port, const std::string& ls,
                       const std::string& vif, bool force_find, std::string* error);
  /// On whatever switch it is.
  int FindAndClearExistingPortWithVifId(const std::string& ls, const std::string& vif, std::string* error);
  /// Takes the VIF off every port but `port`.
  int ClearVifFromPortOtherThan(const std::string& port, const std::string& vif, std::string* error);

  /// The port's VM is on this host: a file that another host has saved last becomes this one's, or that host
  /// would go on writing it and this one would not.
  void TakeFile(const PortLocation& at);
  /// The VM's configuration file is somewhere else now.
  int UpdateGcfPath(const std::string& zone, const std::string& port, const std::string& new_gcf_path,
                    std::string* error);

  /// With `rpc_done` "false" notes on the port that `rpc_op` could not be told to the manager; with "true"
  /// forgets the same note.
  int UpdateDvportRpcOp(const std::string& dvs, const std::string& port, const std::string& rpc_op,
                        const std::string& rpc_done, std::string* error);

  /// Nobody waits for the port's site configuration any more, neither by the port nor by its file.
  int ClearAttachmentState(const std::string& dvs, const std::string& port, std::string* error);

  /// Takes the port from its switch, and its file.  `vm_leaves`: the files of all ports of the VM.
  int DeletePort(const std::string& dvs, const std::string& port, bool vm_leaves, std::string* error);

  // --- single properties

  int SetPortExtraConfig(const std::string& dvs, const std::string& port, const std::string& key,
                         const std::string& value, std::string* error = nullptr);
  /// 0, 1 when the port did not have it, or -1 after three tries.
  int ClearPortExtraConfig(const std::string& dvs, const std::string& port, const std::string& key,
                           std::string* error = nullptr);
  /// The library's code.
  uint32_t GetPortExtraConfig(const std::string& dvs, const std::string& port, const std::string& key,
                              std::string* value);
  /// What ties the port to a VIF.
  int ClearPortOpaqueData(const std::string& dvs, const std::string& port);
  /// From all ports of the switch.
  int ClearAllPortOpaqueData(const std::string& dvs);
  int SetVlanPolicy(const std::string& dvs, const std::string& port, int32_t vlan,
                    const std::vector<std::pair<uint32_t, uint32_t>>& ranges, std::string* error);
  int SetUplinkTeamingName(const std::string& dvs, const std::string& port, const std::string& teaming,
                           std::string* error);
  /// A property of the switch on this host; the library's code.
  uint32_t GetHostConfigProp(const std::string& dvs, const std::string& property, std::string* value);

  // --- port files

  /// Writes what the port is into the file, without one of its properties if one is named, and who this host
  /// is.  0; -1 without path or without state, -2 when it cannot be written.
  int SavePortDataFile(const std::string& path, const std::string& dvs, const std::string& port,
                       const char* without = nullptr);
  /// Changes one property in the file of a port that need not be on a switch; nothing removes it.
  int UpdateExtraConfigInPortDataFile(const std::string& path, const std::string& key,
                                      const std::string* value);

 private:
  /// The switches of all zones, each once.
  std::vector<std::string> Switches() const;
  int CreateNew(const HostSwitchInfo& host_switch, const PortConfigSpec& spec, const std::string& block,
                bool unblock, std::string* error);
  /// What an existing port's block setting is becomes `block`; it gets a new cookie.
  void RefreshExisting(const std::string& dvs, const std::string& port, std::string* block);
  int SetPortConfig(const std::string& dvs, const PortConfigSpec& spec, const std::string& vif,
                    const std::string& gcf_path, std::string* error);
  int PutPortFile(const std::string& dvs, const std::string& port, const std::string& gcf_path,
                  const std::map<std::string, std::string>& extra_configs, std::string* error);
  /// Writes the file of a port that has none at `path` yet; a failure is logged.
  bool SaveNew(const std::string& path, const std::string& dvs, const std::string& port);
  /// Empty when the port has no file.
  std::string PersistPath(const std::string& dvs, const std::string& port) const;
  bool IsOfAnotherHost(const std::string& path, const std::string& dvs, const std::string& port) const;
  /// A property as the port's file has it.
  std::optional<std::string> FileText(const std::string& dvs, const std::string& port,
                                      const char* property) const;
  /// Saves it where it is saved already, `without` as above; nothing for a port without file, or whose file
  /// is another host's.
  int SaveAgain(const char* operation, const std::string& dvs, const std::string& port,
                const char* without = nullptr);
  /// Nothing for an unknown zone.
  std::optional<HostSwitchInfo> FindZone(const std::string& zone);
  bool FindOnSwitches(const std::string& vif, const std::string& ls, PortLocation* found);
  bool RestoreFromFiles(const std::string& vif, const std::string& ls, const std::string& directory,
                        PortLocation* found);
  bool TakeBack(const PortFileEntry& file, const std::string& directory, const std::string& vif,
                const std::string& ls);
  bool AddFromFile(const PortFileEntry& file, const std::string& vif, const std::string& bytes);
  bool TakeLeftOver(const PortFileEntry& file, const std::string& dvs, const std::string& vif,
                    const std::string& ls);
  bool RestorePort(const std::string& dvs, const std::string& port, const std::string& file);
  /// The ports that hold the VIF, in the order of the walk, which also renews the index.
  std::vector<PortLocation> WalkForVif(const std::string& vif);
  /// What the index says of the VIF's ports beside those of the key `except`, each asked whether it holds it.
  /// Nothing when the index does not know, or is out of date.
  std::optional<std::vector<PortLocation>> AskIndex(const std::string& vif, const std::string& except);
  bool KnowsAll(const std::optional<std::vector<PortLocation>>& holders, const std::string& vif) const;
  /// The ports of the logical switch among them.
  std::vector<PortLocation> OfNetwork(const std::vector<PortLocation>& holders, const std::string& ls,
                                      const char* then) const;
  /// Walks once, with or without a VIF to look for; false when not all ports could be read.
  bool ReadVifs(const std::string* vif, std::vector<PortLocation>* holders);
  /// The port belongs to the logical switch and holds the VIF.
  bool Matches(const PortLocation& at, const std::string& vif, const std::string& ls) const;
  int ClearExternalId(const std::string& dvs, const std::string& port, std::string* error);

  SwitchLibrary& library_;
  LumCommands& lum_;
  const HostId host_id_;
  const std::unique_ptr<VifIndex> vif_index_;
  CopyOnWriteMap<std::string, HostSwitchInfo> tz_to_dvs_;
  std::atomic<bool> zones_unanswered_{false};
  CopyOnWriteMap<std::string, std::shared_ptr<const VifRequest>> vifs_to_fetch_site_config_;
};

}  // namespace zem::zema
