#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>

#include "app/ctxteng/base/engine_parts.h"
#include "app/ctxteng/base/ictxt_client.h"
#include "app/ctxteng/toggle/feature_toggle.h"

namespace Ctxt {

class CtxtChannel;
class GuestTable;
class LoginLogoffInfoRouter;

/// The identity firewall: decides for each connection whether the firewall learns its user, and brings the
/// logons and logoffs of the guests to the manager.  It works while the manager's feature toggle is on.
///
/// Threads: as ICtxtClient and IStoreUpdates say; `GetStatus`, `IsUserIgnored` and `Count` from any thread.
class Idfw final : public ICtxtClient, public IStoreUpdates {
 public:
  /// The process's client, made at the first use over these, which outlive it.
  static const std::shared_ptr<Idfw>& GetInstance(GuestTable& guests, CtxtChannel& channel);

  /// `guests` and `channel` outlive the client.
  Idfw(GuestTable& guests, CtxtChannel& channel);
  ~Idfw() override;

  void Initialize(const CtxtClientParam& param,
                  const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store) override;
  void VmPowerOnEventHandler(const std::shared_ptr<VmData>& vm) override;
  void VmPowerOffEventHandler(const std::shared_ptr<VmData>& vm) override;
  bool NetworkEventHandler(const std::shared_ptr<const ConnInfo>& connection,
                           const std::shared_ptr<VmData>& vm) override;
  void SystemEventHandler(const std::shared_ptr<const UserSessionInfo>& session,
                          const std::shared_ptr<VmData>& vm) override;
  void Shutdown() override;

  void OnFeatureToggle(const orlane::zem::covedb::MonitorUpdateMsg& update) override;
  void StoreBegins() override;
  void StoreComplete() override;

  /// Whether the key is that of an account that the options list.
  bool IsUserIgnored(const std::string& user_key) const;
  /// Whether the manager has turned the feature on.
  bool GetStatus() const { return master_switch_.enabled(); }

  struct Counts {
    uint32_t waiting = 0;   // in the cache
    uint64_t dropped = 0;   // out of the full cache
    uint64_t replaced = 0;  // with a batch that gave way to a newer one
  };
  Counts Count() const;

 private:
  void SetEnabled(bool enabled);
  void MakeRouter(const CtxtClientParam& param);

  GuestTable& guests_;
  CtxtChannel& channel_;
  std::shared_ptr<LoginLogoffInfoRouter> router_;
  Ctxt::FeatureToggle master_switch_;
  std::atomic<uint64_t> event_mask_{0};
  std::shared_ptr<zem::covedb::CoveDbClientInterface> store_;
  std::unordered_set<std::string> well_known_sids_;
};

}  // namespace Ctxt
