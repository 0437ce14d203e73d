#include "app/zema/covedb/covedb_handler.h"

#include <algorithm>
#include <array>
#include <utility>

#include "covedbclient/codec/address_codec.h"
#include "covedbclient/codec/object_dispatcher.h"
#include "covedbclient/statements.h"
#include "framework/log/log.h"
#include "platform/provider/timer.h"
#include "platform/provider/weak_call.h"
#include "platform/rpc/status.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/runtime_objects.pb.h"
#include "proto/covedb/switching_objects.pb.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

namespace store = orlane::zem::covedb;
using covedb::ModifyRequestMsg;
using covedb::MonitorUpdateMsg;
using store::ObjectType;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr auto kMonitored = {ObjectType::OPAQUE_LOG_SWITCH_CONFIG, ObjectType::TRANSPORT_NODE_CONFIG,
                             ObjectType::BARRIER, ObjectType::VIF_STATE};
constexpr auto kDesiredConfig = {ObjectType::TN_DESIRED_CONFIG_1,   ObjectType::TN_DESIRED_CONFIG_2,
                                 ObjectType::TRANSPORT_NODE_CONFIG, ObjectType::TN_DESIRED_CONFIG_22,
                                 ObjectType::TN_DESIRED_CONFIG_23,  ObjectType::OPAQUE_LOG_SWITCH_CONFIG};
constexpr auto kFullSync = {ObjectType::OPAQUE_LOG_SWITCH_CONFIG, ObjectType::TRANSPORT_NODE_CONFIG,
                            ObjectType::BARRIER};

// The longest time, in intervals, by which repeated scheduling can delay a complete reading.
constexpr int kMaxIntervals = 4;

// A request for one object by its type and keys, or for all objects of the type.
store::ObjectRequestMsg Wanted(ObjectType type) {
  store::ObjectRequestMsg wanted;
  wanted.set_object_type(type);
  return wanted;
}

}  // namespace

CoveDbHandler::CoveDbHandler(Settings settings)
    : settings_(std::move(settings)),
      writer_({settings_.client, settings_.maintenance_action, settings_.keep_alive}, pending_) {}

CoveDbHandler::~CoveDbHandler() {
  if (timer_) timer_->Cancel();
}

bool CoveDbHandler::channel_up() {
  const Synchronizer lock(*this, __FILE__, __LINE__);
  return channel_up_;
}

bool CoveDbHandler::initial_sync_done() {
  const Synchronizer lock(*this, __FILE__, __LINE__);
  return initial_sync_done_;
}

void CoveDbHandler::SetLsRealizationViaCcp(bool on) {
  const Synchronizer lock(*this, __FILE__, __LINE__);
  ls_realization_via_ccp_ = on;
}

// --- Monitors.

void CoveDbHandler::RegisterChannelStatus() {
  settings_.client->AddChannelStatusCallback(WeakCall(
      weak_from_this(), [](CoveDbHandler& handler, bool up) { handler.OnChannelStatus(up); }, [] {}));
}

bool CoveDbHandler::Configure(bool add) {
  std::list<covedb::MonitorStatementMsg> statements = covedb::MonitorStatementsFor(kMonitored);
  const std::list<covedb::MonitorStatementMsg> none;
  return settings_.client->ConfigureMonitor(add ? statements : none, add ? none : statements, kModuleId,
                                            covedb::kDefaultVDb);
}

void CoveDbHandler::ConfigureMonitors() {
  bool enabled = false;
  {
    const Synchronizer lock(*this, __FILE__, __LINE__);
    if (monitored_) return;
    monitored_ = true;
    // The store sends all objects again to a new monitor.
    initial_sync_done_ = false;
    switches_begun_ = false;
    enabled = enabled_;
  }
  covedb::CoveDbClientInterface& client = *settings_.client;
  // The callback is registered before the streams begin, so that no update arrives without one.  A
  // registration lasts as long as the client; the previous one stays valid after the monitors are removed.
  (void)client.RegisterMonitorCallback(
      kModuleId,
      WeakCall(
          weak_from_this(),
          [](CoveDbHandler& handler, const MonitorUpdateMsg& update) { handler.OnUpdate(update); }, [] {}),
      WeakCall(
          weak_from_this(), [](CoveDbHandler& handler) { handler.OnBarrier(); }, [] {}),
      covedb::kDefaultVDb);
  // While the store is away, the next connection enables the sessions.  Enabling them once is enough, because
  // the store begins each connection with all objects.
  if (!enabled) enabled = client.EnableMonitorSessionCreation();
  ReadBarrier();
  const bool configured = Configure(true);
  if (configured) {
    ZLOG_INFO("Successfully Configured Monitor");
  } else {
    ZLOG_ERROR("44096", "Error Configuring Monitor");
  }
  const Synchronizer lock(*this, __FILE__, __LINE__);
  enabled_ = enabled;
  monitored_ = configured;
}

// The store does not repeat a type that other parts watch already, and the barrier is one.
void CoveDbHandler::ReadBarrier() {
  const uint64_t epoch = this->epoch();
  const bool asked = settings_.client->Get(
      {Wanted(ObjectType::BARRIER)},
      WeakCall(
          weak_from_this(),
          [epoch](CoveDbHandler& handler, const Objects& objects, const rpc::Status& status) {
            if (!status.ok() || handler.IsVoid("ReadBarrier", epoch)) return;
            for (const store::TypedObjectMsg& object : objects) {
              if (!object.has_object()) continue;
              MonitorUpdateMsg update;
              update.set_object_type(object.object_type());
              update.set_object(object.object());
              handler.OnUpdate(update);
            }
          },
          [] {}),
      covedb::kDefaultVDb);
  if (!asked) ZLOG_DEBUG("The store is away; it sends the barrier when it is back");
}

void CoveDbHandler::RemoveMonitors() {
  {
    const Synchronizer lock(*this, __FILE__, __LINE__);
    monitored_ = false;
  }
  if (Configure(false)) {
    ZLOG_INFO("Successfully Un-monitored objects");
  } else {
    ZLOG_ERROR("44096", "Error removing Monitor on objects");
  }
}

void CoveDbHandler::OnChannelStatus(bool up) {
  ZLOG_INFO("Channel Status changed to %s", up ? "up" : "down");
  const std::lock_guard hand_over(hand_over_);
  CovedbOrigin origin{.full_sync = true};
  {
    const Synchronizer lock(*this, __FILE__, __LINE__);
    const bool rises = up && !channel_up_;
    channel_up_ = up;
    if (!up) {
      initial_sync_done_ = false;
      switches_begun_ = false;
      ++connection_;
    }
    if (!rises) return;
    origin.epoch = epoch_;
    origin.connection = connection_;
  }
  // A store that lost its state counts its barriers from the start: the barrier known so far is void until
  // the store sends a new one.
  MonitorUpdateMsg no_barrier;
  no_barrier.set_object_type(ObjectType::BARRIER);
  no_barrier.set_object(std::string());
  settings_.enqueue(CovedbUpdateKind::kObject, std::move(no_barrier), origin);
}

void CoveDbHandler::OnUpdate(const MonitorUpdateMsg& update) {
  ZLOG_DEBUG("Monitor Callback invoked");
  if (update.object_type() == ObjectType::OBJECT_TYPE_NONE) {
    ZLOG_ERROR("44096", "Error in Monitor Callback: %s", "Invalid Object");
    return;
  }
  if (!update.has_object()) {
    ZLOG_ERROR("44096", "Error in Monitor Callback: %s", "Empty value");
    return;
  }
  const std::lock_guard hand_over(hand_over_);
  CovedbOrigin origin;
  bool via_ccp = false;
  {
    const Synchronizer lock(*this, __FILE__, __LINE__);
    // The update was on its way when the monitors were removed.
    if (!monitored_) return;
    const ObjectType type = update.object_type();
    if (type == ObjectType::TRANSPORT_NODE_CONFIG || type == ObjectType::OPAQUE_LOG_SWITCH_CONFIG) {
      switches_begun_ = true;
    }
    origin = {!initial_sync_done_, epoch_, connection_};
    via_ccp = ls_realization_via_ccp_;
  }
  using Row = covedb::ObjectHandler<CoveDbHandler, const CovedbOrigin&, bool>;
  static constexpr covedb::ObjectDispatcher kDispatcher(std::array{
      Row{ObjectType::TRANSPORT_NODE_CONFIG, &CoveDbHandler::OnSwitchObject},
      Row{ObjectType::BARRIER, &CoveDbHandler::OnSwitchObject},
      Row{ObjectType::OPAQUE_LOG_SWITCH_CONFIG, &CoveDbHandler::OnSwitchObject},
      Row{ObjectType::REALIZED_HOST_CONFIG, &CoveDbHandler::OnRealizedHostConfig},
      Row{ObjectType::VIF_STATE, &CoveDbHandler::OnVifState},
  });
  if (!kDispatcher.Dispatch(*this, update, origin, via_ccp)) ZLOG_ERROR("44096", "Invalid object type");
}

void CoveDbHandler::OnSwitchObject(const MonitorUpdateMsg& update, const CovedbOrigin& origin, bool via_ccp) {
  if (!via_ccp) {
    ZLOG_DEBUG("LS Realization Via CCP Disabled");
    return;
  }
  settings_.enqueue(CovedbUpdateKind::kObject, update, origin);
}

void CoveDbHandler::OnRealizedHostConfig(const MonitorUpdateMsg& update, const CovedbOrigin& origin,
                                         bool /*via_ccp*/) {
  settings_.enqueue(CovedbUpdateKind::kObject, update, origin);
}

void CoveDbHandler::OnVifState(const MonitorUpdateMsg& update, const CovedbOrigin& origin, bool /*via_ccp*/) {
  settings_.enqueue(CovedbUpdateKind::kVifState, update, origin);
}

void CoveDbHandler::OnBarrier() {
  ZLOG_DEBUG("Monitor Barrier Callback invoked");
  const std::lock_guard hand_over(hand_over_);
  CovedbOrigin origin;
  {
    const Synchronizer lock(*this, __FILE__, __LINE__);
    if (!monitored_) return;
    origin = {!initial_sync_done_, epoch_, connection_};
    // The stream is shared: a mark without any switch or node may belong to what other parts watch, and must
    // not close a reading that has not begun.
    if (channel_up_ && switches_begun_) initial_sync_done_ = true;
  }
  settings_.enqueue(CovedbUpdateKind::kEndOfTransaction, MonitorUpdateMsg(), origin);
}

// --- The removal of the desired configuration.

void CoveDbHandler::SetOnFlush(std::function<void()> on_flush) {
  const Synchronizer lock(*this, __FILE__, __LINE__);
  on_flush_ = std::move(on_flush);
}

void CoveDbHandler::FlushDesiredConfig(std::function<void()> done) {
  ZLOG_INFO("Flushing transport node desired config from covedb.");
  std::list<ModifyRequestMsg> requests;
  for (const ObjectType type : kDesiredConfig) {
    requests.emplace_back().add_modify_msg()->mutable_flush_msg()->set_object_type(type);
  }
  std::function<void()> on_flush;
  {
    const Synchronizer lock(*this, __FILE__, __LINE__);
    flushed_ = flushed_ || monitored_;
    ++epoch_;
    on_flush = on_flush_;
  }
  // The removal of the flushed objects must not come back as updates to be realized.
  RemoveMonitors();
  // Waits for a batch that is still running; the batch may have failed and scheduled a reading.
  if (on_flush) on_flush();
  {
    const Synchronizer lock(*this, __FILE__, __LINE__);
    if (timer_) timer_->Cancel();
    timer_.reset();
    scheduled_ = Read::kNone;
    ++schedule_;
    uuids_to_read_.clear();
    pending_.ClearPendingLs();
  }
  settings_.client->Modify(std::move(requests), [keep_alive = settings_.keep_alive, done = std::move(done)] {
    if (done) done();
  });
}

uint64_t CoveDbHandler::epoch() {
  const Synchronizer lock(*this, __FILE__, __LINE__);
  return epoch_;
}

bool CoveDbHandler::AddPendingLs(const std::string& uuid, MonitorUpdateMsg update, uint64_t epoch) {
  const Synchronizer lock(*this, __FILE__, __LINE__);
  if (epoch != epoch_) return false;
  pending_.AddPendingLs(uuid, std::move(update));
  return true;
}

bool CoveDbHandler::IsVoid(const char* operation, uint64_t epoch) {
  if (epoch == this->epoch()) return false;
  ZLOG_INFO("[%s] the answer of the store is dropped: what was asked has been flushed since", operation);
  return true;
}

void CoveDbHandler::ResumeMonitors() {
  {
    const Synchronizer lock(*this, __FILE__, __LINE__);
    if (!flushed_) return;
    flushed_ = false;
  }
  ConfigureMonitors();
}

// --- Reads again.

void CoveDbHandler::ScheduleFullSyncRead(uint64_t epoch) {
  const int seconds = settings_.retry_interval();
  const TimePoint now = Clock::Process().Now();
  Duration delay = std::chrono::seconds(seconds);
  const Synchronizer lock(*this, __FILE__, __LINE__);
  if (epoch != epoch_) return;
  ZLOG_INFO("Schedule Logical Switch full-sync read after [%d] seconds", seconds);
  if (scheduled_ != Read::kAll) {
    full_sync_limit_ = now + kMaxIntervals * delay;
  } else {
    delay = std::clamp(full_sync_limit_ - now, Duration::zero(), delay);
  }
  Schedule(Read::kAll, delay);
}

void CoveDbHandler::ScheduleLsRead(const std::vector<std::string>& uuids, uint64_t epoch) {
  const int seconds = settings_.retry_interval();
  const Synchronizer lock(*this, __FILE__, __LINE__);
  if (epoch != epoch_) return;
  ZLOG_INFO("Schedule Logical Switch read from db after [%d] seconds", seconds);
  uuids_to_read_.insert(uuids.begin(), uuids.end());
  if (scheduled_ == Read::kAll) {
    ZLOG_DEBUG("[%s] a full-sync read is scheduled, which holds these", __func__);
    return;
  }
  Schedule(Read::kPending, std::chrono::seconds(seconds));
}

// Called with the lock held.
void CoveDbHandler::Schedule(Read read, Duration delay) {
  if (timer_) timer_->Cancel();
  scheduled_ = read;
  timer_ = settings_.timers->Schedule(
      delay, WeakCall(
                 weak_from_this(),
                 [schedule = ++schedule_](CoveDbHandler& handler) { handler.OnTimer(schedule); }, [] {}));
}

void CoveDbHandler::OnTimer(uint64_t schedule) {
  Read read = Read::kNone;
  std::set<std::string> uuids;
  uint64_t epoch = 0;
  {
    const Synchronizer lock(*this, __FILE__, __LINE__);
    epoch = epoch_;
    if (schedule != schedule_) return;
    timer_.reset();
    read = std::exchange(scheduled_, Read::kNone);
    uuids.swap(uuids_to_read_);
  }
  if (read == Read::kAll) ReadAll(epoch);
  if (read == Read::kPending) ReadPending(uuids, epoch);
}

void CoveDbHandler::ReadAll(uint64_t epoch) {
  std::list<covedb::ObjectRequestMsg> wanted;
  for (const ObjectType type : kFullSync) wanted.push_back(Wanted(type));
  const bool asked = settings_.client->Get(
      wanted,
      WeakCall(
          weak_from_this(),
          [epoch](CoveDbHandler& handler, const Objects& objects, const rpc::Status& status) {
            handler.HandleFullSyncCallback(objects, status, epoch);
          },
          [] {}),
      covedb::kDefaultVDb);
  // The store is away: the next connection starts with a complete reading anyway.
  if (!asked) ZLOG_WARN("Get OpaqueLogSwitchMsg Failed with status %s", "store is away");
}

void CoveDbHandler::HandleFullSyncCallback(const Objects& objects, const rpc::Status& status,
                                           uint64_t epoch) {
  if (IsVoid(__func__, epoch)) return;
  if (!status.ok()) {
    ZLOG_WARN("Get OpaqueLogSwitchMsg Failed with status %s", status.ToString().c_str());
    if (channel_up()) ScheduleFullSyncRead(epoch);
    return;
  }
  if (objects.empty()) {
    ZLOG_INFO("Empty read from db for LogicalSwitch full-sync message retry");
    return;
  }
  const std::lock_guard hand_over(hand_over_);
  CovedbOrigin origin{true, epoch, 0};
  {
    const Synchronizer lock(*this, __FILE__, __LINE__);
    origin.connection = connection_;
  }
  for (const store::TypedObjectMsg& object : objects) {
    if (!object.has_object()) continue;
    MonitorUpdateMsg update;
    update.set_object_type(object.object_type());
    store::ObjectOpMsg op;
    op.set_operation(store::ObjectOpMsg::SET);
    update.set_operation(op.SerializeAsString());
    update.set_object(object.object());
    settings_.enqueue(CovedbUpdateKind::kObject, std::move(update), origin);
  }
  settings_.enqueue(CovedbUpdateKind::kEndOfTransaction, MonitorUpdateMsg(), origin);
  ZLOG_INFO("[%s] Logical Switch Full Sync Retry scheduled", __func__);
}

void CoveDbHandler::ReadPending(const std::set<std::string>& uuids, uint64_t epoch) {
  std::set<std::string> all = uuids;
  for (std::string& uuid : pending_.GetPendingLsKeys()) all.insert(std::move(uuid));
  std::list<covedb::ObjectRequestMsg> wanted;
  for (const std::string& uuid : all) {
    store::OpaqueLogSwitchConfigMsg key;
    if (!UUID_FromString(uuid, key.mutable_id())) continue;
    covedb::ObjectRequestMsg& request = wanted.emplace_back(Wanted(ObjectType::OPAQUE_LOG_SWITCH_CONFIG));
    request.set_object(key.SerializeAsString());
  }
  if (wanted.empty()) return;
  const bool asked = settings_.client->Get(
      wanted,
      WeakCall(
          weak_from_this(),
          [epoch](CoveDbHandler& handler, const Objects& objects, const rpc::Status& status) {
            handler.HandleLogicalSwitchMsgCallback(objects, status, epoch);
          },
          [] {}),
      covedb::kDefaultVDb);
  if (!asked) ZLOG_WARN("Get OpaqueLogSwitchMsg Failed with status %s", "store is away");
}

void CoveDbHandler::HandleLogicalSwitchMsgCallback(const Objects& objects, const rpc::Status& status,
                                                   uint64_t epoch) {
  if (IsVoid(__func__, epoch)) return;
  if (!status.ok()) {
    ZLOG_WARN("Get OpaqueLogSwitchMsg Failed with status %s", status.ToString().c_str());
    if (channel_up()) ScheduleLsRead({}, epoch);
    return;
  }
  size_t entities = 0;
  for (const store::TypedObjectMsg& object : objects) {
    store::OpaqueLogSwitchConfigMsg config;
    if (!object.has_object() || !config.ParseFromString(object.object()) || !config.has_id()) continue;
    MonitorUpdateMsg update;
    update.set_object_type(ObjectType::OPAQUE_LOG_SWITCH_CONFIG);
    store::ObjectOpMsg op;
    op.set_operation(store::ObjectOpMsg::SET);
    update.set_operation(op.SerializeAsString());
    update.set_object(object.object());
    if (!AddPendingLs(UUID_ToString(config.id()), std::move(update), epoch)) return;
    ++entities;
  }
  if (entities == 0) ZLOG_INFO("Empty read from db for LogicalSwitch retry");
  // A failed removal is pending as well, although the store no longer holds the object.
  if (entities == 0 && pending_.size() == 0) return;
  const std::lock_guard hand_over(hand_over_);
  settings_.enqueue(CovedbUpdateKind::kSyncPending, MonitorUpdateMsg(), {false, epoch, 0});
  if (entities > 0) {
    ZLOG_INFO("[%s] Logical Switch Batch Retry scheduled for [%lu] entities", __func__,
              static_cast<unsigned long>(entities));
  }
}

}  // namespace zem::zema
