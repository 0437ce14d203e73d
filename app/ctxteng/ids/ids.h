#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "app/ctxteng/base/engine_parts.h"
#include "app/ctxteng/base/ictxt_client.h"
#include "app/ctxteng/ids/ids_alarms.h"
#include "app/ctxteng/ids/ids_kafka.h"
#include "app/ctxteng/ids/rule_tenants.h"
#include "app/ctxteng/idsevents/ids_services.h"
#include "app/ctxteng/kafka/config_worker.h"
#include "app/ctxteng/toggle/feature_toggle.h"

namespace IdsEvtEng {
class IdsEvtEngine;
}
namespace orlane::zem::covedb {
class GlobalConfigMsg;
}

namespace Ctxt {

class GuestTable;

/// What the intrusion detection client meets.  All outlive it.
struct IdsSurroundings {
  GuestTable& guests;
  PaceClient::KafkaDeliveries& deliveries;
  /// Makes the engine that takes the alerts; null for none.
  std::function<std::unique_ptr<IdsEvtEng::IdsEvtEngine>(const IdsParam&, IdsEvtEng::IIdsServices&)>
      make_engine;
  /// The node's id as text, which is empty while it is not known; false when there is nobody to ask.  May
  /// throw.
  std::function<bool(std::string*)> transport_node;
  /// Whether the firewall passes, or drops, packets because of overload.
  std::function<bool()> bypassed;
  std::function<bool()> dropped;
};

/// The client that serves the host's intrusion detection: its switches, its road to Kafka, whose its rules
/// are, its alarms, and the engine that takes the alerts.
///
/// Threads: as ICtxtClient and IStoreUpdates say; the services of IIdsServices from any thread.  What a
/// change of configuration needs time for runs on a thread of the client's own.
class Ids final : public ICtxtClient,
                  public IStoreUpdates,
                  public IdsEvtEng::IIdsServices,
                  public std::enable_shared_from_this<Ids> {
 public:
  explicit Ids(IdsSurroundings surroundings);
  ~Ids() override;

  void Initialize(const CtxtClientParam& param,
                  const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store) override;
  /// Profiles count from here on, also those that come before `Initialize`.
  void RegisterUpmMonitor(const std::shared_ptr<zem::upm::UPMService>& profiles) override;
  void VmPowerOnEventHandler(const std::shared_ptr<VmData>& vm) override;
  void VmPowerOffEventHandler(const std::shared_ptr<VmData>& vm) override;
  bool NetworkEventHandler(const std::shared_ptr<const ConnInfo>& connection,
                           const std::shared_ptr<VmData>& vm) override;
  void Shutdown() override;

  using Update = orlane::zem::covedb::MonitorUpdateMsg;
  void OnFeatureToggle(const Update& update) override { toggle_.Take(update); }
  void OnGlobalConfig(const Update& update) override;
  void OnRule(const Update& update) override { tenants_.OnRule(update); }
  void OnRuleSection(const Update& update) override { tenants_.OnRuleSection(update); }
  void StoreBegins() override;
  void StoreComplete() override;

  bool IsKafkaReady() override { return kafka_.IsReady(); }
  int SendKafkaEvent(const orlane::zem::context::ids::EventInfoMsg& message) override;
  int SendKafkaPcap(const orlane::zem::context::ids::PcapInfoMsg& message) override;
  bool GetTnUuid(orlane::zem::UuidMsg* uuid) override;
  void GetSiteId(orlane::zem::UuidMsg* uuid) override;
  bool FillTenantContext(uint32_t rule_id, orlane::zem::TenantContextMsg* tenant) override;
  std::string GetTenantString(uint32_t rule_id) override { return tenants_.Text(rule_id); }
  bool IsEnabled() override { return toggle_.enabled(); }
  bool IsExternalLoggingEnabled() override { return external_logging_; }
  bool IsPcapEnabled() override { return pcap_enabled_; }

  /// Where a Kafka client of another part of the engine reports that its brokers are down.
  PaceClient::KafkaAlarm& kafka_alarm() { return alarms_; }
  uint64_t event_mask() const { return event_mask_; }

 private:
  void TakeGlobalConfig(const Update& update);
  void ForgetGlobalConfig();
  void TakeGlobalConfig(const orlane::zem::covedb::GlobalConfigMsg& config);
  void ToggleChanged(bool enabled);
  void ApplyToggle(bool enabled);
  std::string TransportNode();

  const IdsSurroundings surroundings_;
  std::atomic<bool> external_logging_{false};
  std::atomic<uint64_t> event_mask_{0};
  std::atomic<bool> pcap_enabled_{true};
  FeatureToggle toggle_;
  RuleTenants tenants_;
  IdsAlarms alarms_;
  IdsKafka kafka_;
  // The worker's.
  bool global_config_known_ = false;
  bool global_config_seen_ = true;  // since the store began to send all that it has
  ConfigWorker worker_;
  /// Held by the registration with the profile service that counts; the service never forgets one.
  std::shared_ptr<void> registration_;
  std::shared_ptr<zem::covedb::CoveDbClientInterface> store_;
  std::unique_ptr<IdsEvtEng::IdsEvtEngine> engine_;
};

}  // namespace Ctxt
