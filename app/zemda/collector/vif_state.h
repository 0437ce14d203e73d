#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

namespace orlane::zem {
namespace covedb {
class DaVifMsg;
}
namespace ida {
class VirtualMachineMsg;
class VirtualNetworkInterfaceMsg;
}  // namespace ida
}  // namespace orlane::zem

namespace ZemDa {

class CoveDBConnectionHandler;
class Interruption;
class VifMsgHandler;

/// The store's records of logical port attachments, as the interfaces of VMs come, change and go.
///
/// Threads: the collector's.
class VifState {
 public:
  using Vni = orlane::zem::ida::VirtualNetworkInterfaceMsg;

  VifState(std::shared_ptr<CoveDBConnectionHandler> store, Interruption* interruption);
  ~VifState();

  /// An interface's record; `leaves` when it goes.
  void Take(const Vni& vni, bool leaves);
  /// A VM goes, with all of its interfaces.
  void VmLeaves(const orlane::zem::ida::VirtualMachineMsg& vm);

 private:
  /// The VM's local id and the device's MacKey.
  using Key = std::pair<std::string, std::string>;
  struct Known {
    std::string vif_id;
    uint64_t mac = 0;
  };

  static Key KeyOf(const Vni& vni);
  void UpdateKnown(const Key& key, const Vni& vni, bool leaves);
  void UpdateProperties(const Key& key, const Vni& vni);
  void TakeUnknown(const Key& key, const Vni& vni);
  bool Rebuild(const Known& known, const std::string& owner, const Vni& vni,
               orlane::zem::covedb::DaVifMsg* vif);
  void DecideDeletion(const std::string& vif_id, const std::string& owner);
  void Delete(const std::string& vif_id);
  void Forget(const Key& key);
  void RemoveDevice(const Key& key);

  const std::unique_ptr<VifMsgHandler> vifs_;
  std::map<Key, Known> known_;
  std::map<Key, std::unique_ptr<Vni>> pending_;  // with addresses
  std::map<std::string, std::set<std::string>> devices_;
};

}  // namespace ZemDa
