#include "app/ctxteng/flow/pace.h"

#include <exception>
#include <mutex>
#include <utility>

#include "app/ctxteng/flow/pace_profiles.h"
#include "app/ctxteng/guest/event_keys.h"
#include "app/ctxteng/guest/guest_table.h"
#include "framework/log/log.h"
#include "platform/upm/upm_service.h"
#include "proto/context/pace.pb.h"

namespace Ctxt::PaceClient {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr uint32_t kProfileWork = 1;
constexpr uint64_t kWantedEvents = 0x8E;
constexpr uint32_t kIcmp = 1;
constexpr uint32_t kIcmpV6 = 58;

}  // namespace

Pace::Pace(GuestTable& guests, KafkaAlarm* alarm, KafkaDeliveries& deliveries)
    : guests_(guests),
      queues_(std::make_shared<FlowQueues>(0, 0, 0)),
      kafka_(alarm, deliveries),
      profiles_(std::make_unique<Profiles>(*this, kafka_, site_)),
      aggregator_(statistics_) {}

Pace::~Pace() {
  worker_.Stop();
  stop_.Stop();
}

void Pace::Initialize(const CtxtClientParam& param,
                      const std::shared_ptr<zem::covedb::CoveDbClientInterface>&) {
  ZLOG_INFO("Zemi: Initialize: Max conn event Q Size: %d, Max VM event Q Size: %d, Max User event Q Size: %d",
            static_cast<int>(param.networkEventQueueSize), static_cast<int>(param.vmEventQueueSize),
            static_cast<int>(param.userEventQueueSize));
  if (!param.enableProcessHash)
    ZLOG_WARN("Zemi: Without process hashes all processes of a user are reported as one");
  site_.Forget();
  queues_ = std::make_shared<FlowQueues>(param.networkEventQueueSize, param.vmEventQueueSize,
                                         param.userEventQueueSize);
  StartAggregator();
  worker_.Start();
}

void Pace::RegisterUpmMonitor(const std::shared_ptr<zem::upm::UPMService>& profiles) {
  if (profiles == nullptr) return;
  worker_.Open();
  registration_ = std::make_shared<int>();
  profiles->Register(zem::upm::ENTITY_TRANSPORT_NODE,
                     {zem::upm::CONTEXT_HOST_CONFIG, zem::upm::COMMON_AGENT_HOST_CONFIG,
                      zem::upm::METRICS_MUX_ON_UA_PROFILE},
                     [weak = weak_from_this(), registration = std::weak_ptr(registration_)](
                         const std::vector<zem::upm::ProfileUpdate>& updates, bool full_sync) {
                       const auto self = weak.lock();
                       if (self == nullptr || registration.expired()) return;
                       self->worker_.Post(kProfileWork, [pace = self.get(), updates, full_sync] {
                         pace->profiles_->Take(updates, full_sync);
                       });
                     });
  ZLOG_INFO(
      "Zemi: Registered with UPM for profile: ZEMI HOST_CONFIG, "
      "COMMON_AGENT_HOST_CONFIG,METRICS_MUX_ON_UA_PROFILE and ientity: ENTITY_TRANSPORT_NODE.");
}

void Pace::Shutdown() {
  ZLOG_INFO("Zemi: Shutting down");
  registration_.reset();
  worker_.Stop();
  ZLOG_INFO("Zemi: Disabling network events for all VMs");
  guests_.SetEventMaskForAllVms(kZemiClient, 0);
  stop_.Stop();
  if (aggregator_thread_.joinable()) aggregator_thread_.Join();
  ZLOG_INFO("Zemi: Zemi is being stopped. Not reporting %u VM events", queues_->vms.count());
  ZLOG_INFO("Zemi: Zemi is being stopped. Not reporting %u conn events", queues_->connections.count());
  ZLOG_INFO("Zemi: Zemi is being stopped. Not reporting %u user events", queues_->users.count());
  Reset();
  kafka_.Shutdown();
  site_.Forget();
  aggregator_.Clear();
}

// --- Events, on the guests' threads.

void Pace::VmPowerOnEventHandler(const std::shared_ptr<VmData>& vm) {
  const std::shared_lock lock(config_mutex_);
  if (!Enabled()) return;
  ZLOG_DEBUG("Zemi: VmPowerOnEventHandler VC UUID: %s, gcfPath: %s", vm->vc_uuid.c_str(),
             vm->gcf_path.c_str());
  PutVmEvent(*vm, POWER_ON, "Zemi: Failed to add power-on event for VM: %s, error %s",
             "Zemi: Unknown exception while adding power-on event for VM: %s");
  ZLOG_DEBUG("Zemi: Enabling network events for VM VC UUID %s", vm->vc_uuid.c_str());
  guests_.SetEventMask(vm->vc_uuid, kZemiClient, kWantedEvents);
}

void Pace::VmPowerOffEventHandler(const std::shared_ptr<VmData>& vm) {
  const std::shared_lock lock(config_mutex_);
  if (!Enabled()) return;
  ZLOG_DEBUG("Zemi: VmPowerOffEventHandler VC UUID: %s, gcfPath: %s", vm->vc_uuid.c_str(),
             vm->gcf_path.c_str());
  PutVmEvent(*vm, POWER_OFF, "Zemi: Failed to add power-off event for VM: %s, error %s",
             "Zemi: Unknown exception while adding power-off event for VM: %s");
}

void Pace::GiInfoHandler(const std::shared_ptr<VmData>& vm) {
  const std::shared_lock lock(config_mutex_);
  if (!Enabled()) return;
  ZLOG_DEBUG("Zemi: GiEventHandler VM VC UUID: %s, gcfPath: %s", vm->vc_uuid.c_str(), vm->gcf_path.c_str());
  PutVmEvent(*vm, GI_INFO, "Zemi: Failed to add GI event for VM: %s, error %s",
             "Zemi: Unknown exception while adding GI event for VM: %s");
}

bool Pace::Enabled() const {
  if (collection_enabled_) return true;
  ZLOG_DEBUG("Zemi: Data collection disabled, ignoring event");
  return false;
}

void Pace::PutVmEvent(const VmData& vm, uint32_t event_type, const char* failed, const char* failed_unknown) {
  auto& queue = queues_->vms;
  try {
    if (queue.count() < queue.max()) {
      auto event = std::make_shared<VmEvent>();
      event->vc_uuid = vm.vc_uuid;
      event->bios_uuid = vm.bios_uuid;
      event->gcf_path = vm.gcf_path;
      event->os = vm.os;
      event->gi_known = vm.gi_info_fetched;
      if (event->gi_known) event->gi = vm.gi;
      event->timestamp = WallMilliseconds();
      event->event_type = event_type;
      switch (queue.TryPush(std::move(event))) {
        case QueuePush::kDone:
          statistics_.vm_events.fetch_add(1, std::memory_order_relaxed);
          ZLOG_DEBUG("Zemi: Added VM event to Q, Q size: %u", queue.count());
          return;
        case QueuePush::kFailed:
          ZLOG_CTX_ERROR(602, "Zemi: Failed to add VM event to Q");
          return;
        case QueuePush::kFull:
          break;
      }
    }
    statistics_.dropped.fetch_add(1, std::memory_order_relaxed);
    ZLOG_WARN("Zemi: VM Q size %u >= maximum size %u, dropping VM event!", queue.count(), queue.max());
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(601, failed, vm.vc_uuid.c_str(), error.what());
  } catch (...) {
    ZLOG_CTX_ERROR(601, failed_unknown, vm.vc_uuid.c_str());
  }
}

bool Pace::NetworkEventHandler(const std::shared_ptr<const ConnInfo>& connection,
                               const std::shared_ptr<VmData>& vm) {
  ZLOG_DEBUG("Zemi: NetworkConnHandler VM VC UUID: %s, gcfPath: %s", vm->vc_uuid.c_str(),
             vm->gcf_path.c_str());
  bool wanted = true;
  if (vm->os.os_type == kWindows && vm->os.terminal_svc_enabled &&
      (connection->protocol == kIcmp || connection->protocol == kIcmpV6)) {
    ZLOG_DEBUG("Zemi: ICMP not supported for RDSH, not programming DFW and ignore event");
    wanted = false;
  }
  if (connection->process_name.empty()) {
    ZLOG_DEBUG("Zemi: Ignore process with empty name");
    return wanted;
  }
  const std::shared_lock lock(config_mutex_);
  if (!collection_enabled_) {
    ZLOG_DEBUG("Zemi: Data collection disabled, ignoring network event");
    return wanted;
  }
  auto& queue = queues_->connections;
  try {
    // The record is not changed any more, so the queue shares it with whoever else has it.
    switch (queue.TryPush(connection)) {
      case QueuePush::kDone:
        statistics_.conn_events.fetch_add(1, std::memory_order_relaxed);
        ZLOG_DEBUG("Zemi: Added conn event to Q, Q size: %u", queue.count());
        break;
      case QueuePush::kFull:
        statistics_.dropped.fetch_add(1, std::memory_order_relaxed);
        ZLOG_WARN("Zemi: Conn Q size %u >= maximum size %u, dropping network event!", queue.count(),
                  queue.max());
        break;
      case QueuePush::kFailed:
        ZLOG_CTX_ERROR(604, "Zemi: Failed to add conn event to Q");
        break;
    }
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(603, "Zemi: Failed to collect network event for VM: %s, error %s", vm->vc_uuid.c_str(),
                   error.what());
  } catch (...) {
    ZLOG_CTX_ERROR(603, "Zemi: Unknown exception while collecting network event for VM: %s",
                   vm->vc_uuid.c_str());
  }
  return wanted;
}

void Pace::SystemEventHandler(const std::shared_ptr<const UserSessionInfo>& session,
                              const std::shared_ptr<VmData>& vm) {
  ZLOG_DEBUG("Zemi: SystemEventHandler event type: %s, VM: %s, gcfPath: %s",
             SessionTypeName(session->session_type), vm->vc_uuid.c_str(), vm->gcf_path.c_str());
  const std::shared_lock lock(config_mutex_);
  if (!Enabled()) return;
  auto& queue = queues_->users;
  try {
    switch (queue.TryPush(session)) {
      case QueuePush::kDone:
        statistics_.user_events.fetch_add(1, std::memory_order_relaxed);
        ZLOG_DEBUG("Zemi: Added user event to Q, Q size: %u", queue.count());
        break;
      case QueuePush::kFull:
        statistics_.dropped.fetch_add(1, std::memory_order_relaxed);
        ZLOG_WARN("Zemi: UserSession Q size %u >= maximum size %u, dropping user event!", queue.count(),
                  queue.max());
        break;
      case QueuePush::kFailed:
        ZLOG_CTX_ERROR(606, "Zemi: Failed to add user event to Q");
        break;
    }
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(605, "Zemi: Failed to collect system event for VM: %s, error %s", vm->vc_uuid.c_str(),
                   error.what());
  } catch (...) {
    ZLOG_CTX_ERROR(605, "Zemi: Unknown exception while collecting system event for VM: %s",
                   vm->vc_uuid.c_str());
  }
}

uint64_t Pace::collection() const {
  const std::shared_lock lock(config_mutex_);
  return collection_;
}

void Pace::SendContextInfo(const orlane::zem::pace::PaceContextInfoMsg& msg) {
  const auto client = kafka_.client();
  if (!client) {
    ZLOG_WARN("Zemi: Kafka client not configured yet, dropping msg");
    return;
  }
  client->SendContext(msg);
  ++statistics_.context_msgs_sent;
  statistics_.context_msg_bytes_sent += static_cast<uint32_t>(msg.ByteSizeLong());
}

// --- Configuration.

void Pace::Update(const orlane::zem::context::ContextHostConfigMsg& config) {
  ZLOG_INFO("Zemi: Update PACE configuration");
  {
    const std::unique_lock lock(config_mutex_);
    if (!collection_enabled_) {
      // Before the switch, so that the guests' own events come behind their power-ons.
      ReplayGuests();
      guests_.SetEventMaskForAllVms(kZemiClient, kWantedEvents);
    }
    settings_.Take(config);
    collection_enabled_ = true;
  }
  site_.Resume();
  kafka_.Rebuild([&](KafkaConfig& settings) { UpdateFromHostConfig(&settings, config); });
}

void Pace::ReplayGuests() {
  int guests = 0;
  for (const GuestTable::Record& vm : guests_.All()) {
    ZLOG_DEBUG("Zemi: Collecting power-ons for VC UUID: %s, gcfPath: %s", vm->vc_uuid.c_str(),
               vm->gcf_path.c_str());
    PutVmEvent(*vm, POWER_ON, "Zemi: Failed to add power-on event for VM: %s, error %s",
               "Zemi: Unknown exception while adding power-on event for VM: %s");
    ++guests;
  }
  ZLOG_INFO("Zemi: Collected %d powered on VMs", guests);
}

void Pace::Reset() {
  ZLOG_INFO("Zemi: Reset Configuration");
  {
    const std::unique_lock lock(config_mutex_);
    collection_enabled_ = false;
    settings_ = {};
    // What the aggregator has already is void by this number; it is the only one that touches it.
    ++collection_;
    // With the lock, which the aggregator holds as well while it takes events out.
    queues_->Clear();
    guests_.SetEventMaskForAllVms(kZemiClient, 0);
  }
  kafka_.Drop([](KafkaConfig& config) {
    config.context_topic.clear();
    config.metrics_topic.clear();
  });
  site_.Suspend();
  ZLOG_INFO("Zemi: reset site id done");
}

}  // namespace Ctxt::PaceClient
