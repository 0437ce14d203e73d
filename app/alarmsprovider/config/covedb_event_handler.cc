#include "app/alarmsprovider/config/covedb_event_handler.h"

#include <array>
#include <utility>

#include "covedbclient/codec/object_dispatcher.h"
#include "covedbclient/covedb_client_interface.h"
#include "covedbclient/statements.h"
#include "framework/log/log.h"
#include "platform/provider/weak_call.h"
#include "platform/rpc/status.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/monitoring_objects.pb.h"

namespace zem::Tarvik {
namespace {

namespace store = orlane::zem::covedb;
using store::ObjectType;

constexpr LogSource kLog{"tarvik", "alarmsprovider"};

constexpr uint32_t kModuleId = 5;
constexpr auto kMonitored = {ObjectType::EVENT_CONFIG, ObjectType::GLOBAL_CONFIG,
                             ObjectType::DATA_COLLECTION_CONFIG, ObjectType::GLOBAL_COLLECTION_CONFIGURATION,
                             ObjectType::USER_DEFINED_FEATURE_STACK_COLLECTION_CONFIGURATION};
constexpr uint16_t kAnyVdb = 0;

// Returns false unless the update carries an operation and an object that parse.
template <class Object, class Operation>
bool Read(const store::MonitorUpdateMsg& update, Object* object, Operation* operation) {
  return update.has_object() && update.has_operation() && object->ParseFromString(update.object()) &&
         operation->ParseFromString(update.operation());
}

}  // namespace

CovedbEventHandler::CovedbEventHandler(Settings settings, ConfigChanged config_changed)
    : settings_(std::move(settings)),
      config_changed_(std::move(config_changed)),
      config_sync_(std::make_shared<ConfigSyncManager>(settings_.paths)),
      polling_config_(settings_.client_type) {}

void CovedbEventHandler::Start() {
  config_sync_->Start();
  covedb::CoveDbClientInterface& client = *settings_.store;
  client.AddChannelStatusCallback(WeakCall(
      weak_from_this(), [](CovedbEventHandler& handler, bool up) { handler.OnChannelStatus(up); }, [] {}));
  ZLOG_INFO("CovedbEventHandler: Registering monitor callbacks");
  // A registration lasts as long as the client, so that of a second start is refused and not needed.
  (void)client.RegisterMonitorCallback(
      kModuleId,
      WeakCall(
          weak_from_this(),
          [](CovedbEventHandler& handler, const Update& update) { handler.OnUpdate(update); }, [] {}),
      WeakCall(
          weak_from_this(), [](CovedbEventHandler& handler) { handler.OnBarrier(); }, [] {}),
      covedb::kDefaultVDb);
  if (!client.ConfigureMonitor(covedb::MonitorStatementsFor(kMonitored), {}, kModuleId,
                               covedb::kDefaultVDb)) {
    ZLOG_WARN("CovedbEventHandler: The store's objects cannot be watched");
  }
  ZLOG_INFO("CovedbEventHandler: Started");
}

void CovedbEventHandler::Stop() { config_sync_->Stop(); }

void CovedbEventHandler::OnChannelStatus(bool up) {
  if (!up) return config_sync_->StoreGone();
  // The monitors begin again with all objects.
  config_sync_->Clear();
  const std::lock_guard lock(mutex_);
  replaying_ = true;
  // An answer that was due on the connection before does not come.
  if (std::exchange(global_config_asked_, false)) global_config_changed_ = true;
}

void CovedbEventHandler::OnUpdate(const Update& update) {
  ZLOG_DEBUG("CovedbEventHandler: MonitorUpdateMsg: %s", update.ShortDebugString().c_str());
  using Row = covedb::ObjectHandler<CovedbEventHandler>;
  static constexpr covedb::ObjectDispatcher kDispatcher(std::array{
      Row{ObjectType::EVENT_CONFIG, &CovedbEventHandler::OnEventConfig},
      Row{ObjectType::GLOBAL_CONFIG, &CovedbEventHandler::OnGlobalConfig},
      Row{ObjectType::DATA_COLLECTION_CONFIG, &CovedbEventHandler::OnDataCollectionConfig},
      Row{ObjectType::GLOBAL_COLLECTION_CONFIGURATION, &CovedbEventHandler::OnGlobalCollection},
      Row{ObjectType::USER_DEFINED_FEATURE_STACK_COLLECTION_CONFIGURATION,
          &CovedbEventHandler::OnUserDefinedCollection},
  });
  if (!kDispatcher.Dispatch(*this, update)) {
    ZLOG_WARN("CovedbEventHandler: Received invalid object type: %d", static_cast<int>(update.object_type()));
  }
}

void CovedbEventHandler::OnEventConfig(const Update& update) {
  store::EventConfigMsg event;
  store::EventConfigOpMsg operation;
  if (!Read(update, &event, &operation)) return;
  ZLOG_DEBUG("CovedbEventHandler: EventConfigMsg: %s", event.ShortDebugString().c_str());
  if (operation.operation() == store::ObjectOpMsg::DELETE) {
    config_sync_->Delete(event.name());
  } else {
    config_sync_->Update(event);
  }
  {
    const std::lock_guard lock(mutex_);
    event_config_changed_ = true;
  }
  ZLOG_DEBUG("CovedbEventHandler: HandleEventConfig done");
}

void CovedbEventHandler::OnGlobalConfig(const Update& update) {
  store::GlobalConfigMsg config;
  if (!config.ParseFromString(update.object()) || !config.has_central_config()) return;
  const std::lock_guard lock(mutex_);
  global_config_changed_ = true;
}

void CovedbEventHandler::OnDataCollectionConfig(const Update& update) {
  store::DataCollectionConfigMsg config;
  store::DataCollectionConfigOpMsg operation;
  if (Read(update, &config, &operation) && polling_config_.Update(config)) PollingChanged();
}

void CovedbEventHandler::OnGlobalCollection(const Update& update) {
  store::GlobalCollectionConfigurationMsg config;
  store::GlobalCollectionConfigurationOpMsg operation;
  if (!Read(update, &config, &operation)) return;
  ZLOG_DEBUG("CovedbEventHandler: GlobalCollectionConfigurationMsg: %s, is_collection_enabled %s",
             config.ShortDebugString().c_str(), config.is_collection_enabled() ? "TRUE" : "FALSE");
  if (polling_config_.SetCollectionEnabled(config.is_collection_enabled())) PollingChanged();
}

void CovedbEventHandler::OnUserDefinedCollection(const Update& update) {
  store::UserDefinedFeatureStackCollectionConfigurationMsg config;
  store::UserDefinedFeatureStackCollectionConfigurationOpMsg operation;
  if (Read(update, &config, &operation) && polling_config_.Update(config)) PollingChanged();
}

// A replay may hold hundreds of objects: the table goes out once at its end, not once for each of them.
void CovedbEventHandler::PollingChanged() {
  {
    const std::lock_guard lock(mutex_);
    if (replaying_) {
      push_due_ = true;
      return;
    }
  }
  Push();
}

void CovedbEventHandler::Push() {
  config_changed_(polling_config_.table(), polling_config_.collection_enabled());
}

void CovedbEventHandler::OnBarrier() {
  bool write = false;
  bool get = false;
  bool push = false;
  {
    const std::lock_guard lock(mutex_);
    replaying_ = false;
    write = std::exchange(event_config_changed_, false);
    push = std::exchange(push_due_, false);
    // A change that comes while an answer is due is read again after it.
    get = global_config_changed_ && !global_config_asked_;
  }
  if (write) (void)config_sync_->Write();
  if (push) Push();
  if (get) GetCentralConfig();
}

void CovedbEventHandler::GetCentralConfig() {
  {
    const std::lock_guard lock(mutex_);
    global_config_changed_ = false;
    global_config_asked_ = true;
  }
  store::ObjectRequestMsg wanted;
  wanted.set_object_type(ObjectType::GLOBAL_CONFIG);
  const bool asked = settings_.store->Get(
      {wanted},
      WeakCall(
          weak_from_this(),
          [](CovedbEventHandler& handler, const std::list<store::TypedObjectMsg>& objects,
             const rpc::Status& status) { handler.TakeCentralConfig(objects, status); },
          [] {}),
      kAnyVdb);
  if (asked) return;
  // The store is away: the replay of the next connection brings the object again.
  ZLOG_WARN("CovedbEventHandler: Failed to retrieve central config");
  const std::lock_guard lock(mutex_);
  global_config_asked_ = false;
}

void CovedbEventHandler::TakeCentralConfig(const std::list<store::TypedObjectMsg>& objects,
                                           const rpc::Status& status) {
  bool again = false;
  {
    const std::lock_guard lock(mutex_);
    global_config_asked_ = false;
    again = global_config_changed_;
  }
  if (!status.ok()) {
    ZLOG_WARN("CovedbEventHandler: Failed to retrieve central config");
  } else {
    std::string text;
    for (const store::TypedObjectMsg& object : objects) {
      if (object.object_type() != ObjectType::GLOBAL_CONFIG) {
        ZLOG_WARN("CovedbEventHandler: Received invalid object type from get central config request: %d",
                  static_cast<int>(object.object_type()));
        continue;
      }
      store::GlobalConfigMsg config;
      if (config.ParseFromString(object.object()) && config.has_central_config()) {
        text = config.central_config();
      }
    }
    config_sync_->SetCentralConfig(text);
  }
  if (again) GetCentralConfig();
}

}  // namespace zem::Tarvik
