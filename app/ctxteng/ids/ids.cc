#include "app/ctxteng/ids/ids.h"

#include <exception>
#include <stdexcept>
#include <utility>

#include "app/ctxteng/guest/guest_table.h"
#include "app/ctxteng/ids/store_message.h"
#include "app/ctxteng/idsevents/ids_evt_engine.h"
#include "framework/log/log.h"
#include "platform/core/uuid.h"
#include "platform/upm/upm_service.h"
#include "proto/base/base.pb.h"
#include "proto/covedb/monitoring_objects.pb.h"

namespace Ctxt {
namespace {

namespace store = orlane::zem::covedb;
using zem::upm::ProfileUpdate;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr SecurityFeature kFeature = {
    .number = 4, .prefix = "Ids", .name = "ids", .unknown_operation_tag = 751};
// The connections that the detection wants to know: before they are made, and when they end.
constexpr uint64_t kWantedEvents = 0x48;

// The kinds of work for the configuration's thread.
enum Work : uint32_t { kGlobalConfigWork, kProfileWork, kAlarmWork };

}  // namespace

Ids::Ids(IdsSurroundings surroundings)
    : surroundings_(std::move(surroundings)),
      toggle_(kFeature, {[this](bool enabled) { ToggleChanged(enabled); },
                         [this](bool enabled) { ApplyToggle(enabled); }}),
      alarms_({.enabled = [this] { return IsEnabled(); },
               .has_rules = [this] { return tenants_.HasRules(); },
               .transport_node = [this] { return TransportNode(); },
               .bypassed = surroundings_.bypassed,
               .dropped = surroundings_.dropped}),
      kafka_(&alarms_, surroundings_.deliveries) {}

Ids::~Ids() = default;

void Ids::Initialize(const CtxtClientParam& param,
                     const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store) {
  toggle_.Reset();
  tenants_.Clear();
  external_logging_ = false;
  event_mask_ = 0;
  pcap_enabled_ = true;
  global_config_known_ = false;
  global_config_seen_ = true;
  store_ = store;
  try {
    worker_.Start();
    ZLOG_INFO("Ids: Start Alarm");
    alarms_.Start(param.ids.pcapDirPath, param.dpuId);
    ZLOG_INFO("Ids: Starting IDS event reporting");
    if (surroundings_.make_engine) engine_ = surroundings_.make_engine(param.ids, *this);
    if (engine_ != nullptr && engine_->Start() != 0)
      throw std::runtime_error("the event engine has not started");
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(701, "Ids: Exception in IDS client initialization, behavior may be undefined %s",
                   error.what());
  } catch (...) {
    ZLOG_CTX_ERROR(701, "Ids: Unhandled exception in IDS client initialization, behavior may be undefined");
  }
}

void Ids::RegisterUpmMonitor(const std::shared_ptr<zem::upm::UPMService>& profiles) {
  if (profiles == nullptr) return;
  // They wait until the client is initialized.
  worker_.Open();
  registration_ = std::make_shared<int>();
  profiles->Register(zem::upm::ENTITY_TRANSPORT_NODE,
                     {zem::upm::COMMON_AGENT_HOST_CONFIG, zem::upm::METRICS_MUX_ON_UA_PROFILE},
                     [weak = weak_from_this(), registration = std::weak_ptr(registration_)](
                         const std::vector<ProfileUpdate>& updates, bool full_sync) {
                       const auto self = weak.lock();
                       if (self == nullptr || registration.expired()) return;
                       self->worker_.Post(kProfileWork, [ids = self.get(), updates, full_sync] {
                         ids->kafka_.TakeProfiles(updates, full_sync);
                       });
                     });
  ZLOG_INFO(
      "Ids: Registered with UPM for profile: COMMON_AGENT_HOST_CONFIG,METRICS_MUX_ON_UA_PROFILE and "
      "ENTITY_TRANSPORT_NODE.");
}

void Ids::Shutdown() {
  registration_.reset();
  worker_.Stop();
  ZLOG_INFO("Ids: Shutting down IDPS alarm");
  alarms_.Stop();
  ZLOG_INFO("Ids: Shutting down IDS event reporting");
  if (engine_ != nullptr) engine_->Stop();
  engine_.reset();
  kafka_.Shutdown();
  toggle_.Reset();
  event_mask_ = 0;
  external_logging_ = false;
  tenants_.Clear();
  store_.reset();
}

// --- Guests.

void Ids::VmPowerOnEventHandler(const std::shared_ptr<VmData>& vm) {
  surroundings_.guests.SetEventMask(vm->vc_uuid, kIdsClient, event_mask_);
}

void Ids::VmPowerOffEventHandler(const std::shared_ptr<VmData>&) {}

bool Ids::NetworkEventHandler(const std::shared_ptr<const ConnInfo>&, const std::shared_ptr<VmData>&) {
  return true;
}

// --- The store.

void Ids::ToggleChanged(bool enabled) {
  if (enabled) return;
  ZLOG_INFO("Reset all alarms. IDS was enabled now it has been disabled");
  worker_.Post(kAlarmWork, [this] {
    alarms_.ResetAll();
    kafka_.ClearAlarm();
  });
}

void Ids::ApplyToggle(bool enabled) {
  event_mask_ = enabled ? kWantedEvents : 0;
  surroundings_.guests.SetEventMaskForAllVms(kIdsClient, event_mask_);
}

void Ids::OnGlobalConfig(const Update& update) {
  worker_.Post(kGlobalConfigWork, [this, update] { TakeGlobalConfig(update); });
}

void Ids::StoreBegins() {
  toggle_.StoreBegins();
  tenants_.StoreBegins();
  worker_.Post(kGlobalConfigWork, [this] { global_config_seen_ = !global_config_known_; });
}

void Ids::StoreComplete() {
  toggle_.StoreComplete();
  tenants_.StoreComplete();
  worker_.Post(kGlobalConfigWork, [this] {
    if (!std::exchange(global_config_seen_, true)) ForgetGlobalConfig();
  });
}

void Ids::TakeGlobalConfig(const Update& update) {
  try {
    if (!IsOfType(update, store::GLOBAL_CONFIG)) return;
    store::GlobalConfigMsg config;
    store::ObjectOpMsg operation;
    if (!config.ParseFromString(update.object()) || !operation.ParseFromString(update.operation())) {
      ZLOG_ERROR("IDSERR_FAIL_PARSE_COVEDB", "Failed to parse Global Config message");
      return;
    }
    // It comes with its last value, which does not hold any more.
    if (operation.operation() == store::ObjectOpMsg::DELETE) return ForgetGlobalConfig();
    global_config_known_ = global_config_seen_ = true;
    TakeGlobalConfig(config);
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(351, "Ids: Exception in processing global config monitor updates. error: %s",
                   error.what());
  } catch (...) {
    ZLOG_CTX_ERROR(351, "Ids: Unknown exception in processing common agent host config updates");
  }
}

// As one that switches everything off.
void Ids::ForgetGlobalConfig() {
  ZLOG_INFO("Ids: The global config is gone; external logging and kafka are switched off");
  global_config_known_ = false;
  external_logging_ = false;
  kafka_.TakeEventConfig({}, pcap_enabled_);
}

void Ids::TakeGlobalConfig(const store::GlobalConfigMsg& config) {
  if (!config.has_ids_global_config() && !config.has_ids_event_config()) {
    ZLOG_INFO("Ids: ids global/event config absent from message");
    return;
  }
  if (config.has_ids_global_config()) {
    if (config.ids_global_config().has_external_logging()) {
      external_logging_ = config.ids_global_config().external_logging();
      ZLOG_INFO("Ids: External logging switch set to: %s", external_logging_ ? "true" : "false");
    } else {
      ZLOG_INFO("Ids: ids global cfg does not contain toggle info");
    }
  }
  if (!config.has_ids_event_config()) return;
  const store::IdsEventConfigMsg& events = config.ids_event_config();
  if (!events.has_publish_east_west() && !events.has_data_topic()) {
    ZLOG_INFO("Ids: ids event east-west cfg does not contain any info");
    return;
  }
  kafka_.TakeEventConfig(events, pcap_enabled_);
}

// --- What the event engine asks.

int Ids::SendKafkaEvent(const orlane::zem::context::ids::EventInfoMsg& message) {
  return kafka_.SendEvent(message);
}

int Ids::SendKafkaPcap(const orlane::zem::context::ids::PcapInfoMsg& message) {
  return kafka_.SendPcap(message);
}

bool Ids::GetTnUuid(orlane::zem::UuidMsg* uuid) {
  try {
    std::string text;
    if (!surroundings_.transport_node || !surroundings_.transport_node(&text)) {
      ZLOG_CTX_ERROR(734, "Ids: Failed to get Tn proxy client");
      return false;
    }
    const auto parsed = zem::ParseUuid(text);
    if (!parsed) throw std::runtime_error("\"" + text + "\" is no uuid");
    zem::SetUuid(*parsed, uuid);
    ZLOG_DEBUG("Ids: node tn uuid: %s", text.c_str());
    return true;
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(734, "Ids: Exception retreiving tn uuid error: %s", error.what());
  }
  return false;
}

// Read when it is needed: the proxy tells it only some time after the start.
std::string Ids::TransportNode() {
  std::string text;
  if (!surroundings_.transport_node || !surroundings_.transport_node(&text)) return {};
  return text;
}

void Ids::GetSiteId(orlane::zem::UuidMsg* uuid) {
  const auto [first, second] = kafka_.site();
  uuid->set_first(first);
  uuid->set_second(second);
}

bool Ids::FillTenantContext(uint32_t rule_id, orlane::zem::TenantContextMsg* tenant) {
  return tenants_.Fill(rule_id, tenant);
}

}  // namespace Ctxt
