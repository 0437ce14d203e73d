#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <shared_mutex>

#include "app/ctxteng/base/ictxt_client.h"
#include "app/ctxteng/flow/aggregator.h"
#include "app/ctxteng/flow/collection_settings.h"
#include "app/ctxteng/flow/context_report.h"
#include "app/ctxteng/flow/flow_queues.h"
#include "app/ctxteng/flow/flow_statistics.h"
#include "app/ctxteng/kafka/config_worker.h"
#include "app/ctxteng/kafka/kafka_owner.h"
#include "app/ctxteng/kafka/site_id.h"
#include "platform/core/stop_signal.h"
#include "platform/core/thread.h"

namespace orlane::zem {
namespace context {
class ContextHostConfigMsg;
}
namespace pace {
class PaceContextInfoMsg;
}
}  // namespace orlane::zem

namespace Ctxt {
class GuestTable;
}

namespace Ctxt::PaceClient {

/// The client that reports to Kafka what guests do.  Guests' threads queue events; once a minute a thread of
/// its own sorts them by guest, and at the end of each interval it sends what has come together.
///
/// Threads: as ICtxtClient says.  Profiles take effect on another thread of its own.
class Pace : public ICtxtClient, public std::enable_shared_from_this<Pace> {
 public:
  static constexpr uint32_t kWaitIntervalMs = 60000;

  /// All outlive the client.
  Pace(GuestTable& guests, KafkaAlarm* alarm, KafkaDeliveries& deliveries);
  ~Pace() override;

  /// Throws CtxtBoostThreadResourceError.
  void Initialize(const CtxtClientParam& param,
                  const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store) override;
  /// Profiles count from here on; they take effect when the client is initialized.
  void RegisterUpmMonitor(const std::shared_ptr<zem::upm::UPMService>& profiles) override;
  void VmPowerOnEventHandler(const std::shared_ptr<VmData>& vm) override;
  void VmPowerOffEventHandler(const std::shared_ptr<VmData>& vm) override;
  void GiInfoHandler(const std::shared_ptr<VmData>& vm) override;
  bool NetworkEventHandler(const std::shared_ptr<const ConnInfo>& connection,
                           const std::shared_ptr<VmData>& vm) override;
  void SystemEventHandler(const std::shared_ptr<const UserSessionInfo>& session,
                          const std::shared_ptr<VmData>& vm) override;
  /// What waits for a report is dropped.
  void Shutdown() override;
  /// Gives a report, or a part of one, to the Kafka client.
  virtual void SendContextInfo(const orlane::zem::pace::PaceContextInfoMsg& msg);

  bool collection_enabled() const { return collection_enabled_; }
  const FlowStatistics& statistics() const { return statistics_; }

 private:
  class Profiles;

  void PutVmEvent(const VmData& vm, uint32_t event_type, const char* failed, const char* failed_unknown);
  bool Enabled() const;

  void StartAggregator();
  void AggregatorThread();
  // Returns whether a report is due.
  bool Aggregate(uint32_t* iter);
  bool TakeEvents(uint32_t* interval_ms);
  void Report();

  void Update(const orlane::zem::context::ContextHostConfigMsg& config);
  void ReplayGuests();
  void Reset();

  GuestTable& guests_;
  FlowStatistics statistics_;
  std::shared_ptr<FlowQueues> queues_;
  SiteId site_;
  KafkaOwner kafka_;
  const std::unique_ptr<Profiles> profiles_;
  std::shared_ptr<void> registration_;  // the one that counts; the profile service never forgets one

  // Guards what follows.  A guest's thread holds it shared while it queues an event, so that a change finds
  // an event either queued or not asked for.
  mutable std::shared_mutex config_mutex_;
  std::atomic<bool> collection_enabled_{false};
  CollectionSettings settings_;
  uint64_t collection_ = 0;  // counts how often the collection was switched off

  // The aggregator thread's.
  Aggregator aggregator_;
  ReportBuilder report_builder_;
  uint64_t aggregated_collection_ = 0;

  zem::StopSignal stop_;
  zem::NativeThread aggregator_thread_;
  ConfigWorker worker_;
};

}  // namespace Ctxt::PaceClient
