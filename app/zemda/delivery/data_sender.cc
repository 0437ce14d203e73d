#include "app/zemda/delivery/data_sender.h"

#include <array>
#include <chrono>
#include <optional>
#include <utility>

#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/random.h"
#include "platform/core/thread_name.h"
#include "proto/ida/ida.pb.h"

namespace ZemDa {
namespace {

using orlane::zem::ida::DcMsg;

constexpr zem::LogSource kLog{"tarvik", "zemda"};

constexpr auto kPause = std::chrono::seconds(5);
// About half an hour of pauses.
constexpr uint32_t kIdlePauses = 360;
constexpr uint32_t kIdleSpread = 10;

constexpr int kFullSync = 0;
constexpr int kUpdate = 1;
constexpr int kCommand = 2;
constexpr int kSyncRequest = 0;
constexpr int kHeartbeat = 3;

struct StateRow {
  const char* name;
  const char* thread_name;
};
constexpr std::array kStates = {StateRow{"WAITING_FOR_DATA", "DA:ds:DataWait"},
                                StateRow{"WAITING", "DA:ds:Wait"}, StateRow{"DO_SYNC_INIT", "DA:ds:Init"}};

DcMsg::Type TypeOf(const DcMsg& record) { return record.type(); }

void AddObject(DcMsg* record, orlane::zem::ida::IdaMsg* batch) {
  if (!record->has_inventory_object()) {
    ZLOG_DEBUG("Fetched message do not have inventory object. Ignoring it.");
    return;
  }
  batch->add_inventory_object()->Swap(record->mutable_inventory_object());
}

}  // namespace

DataSender::DataSender(std::shared_ptr<DcQueue> queue, std::function<void(const IdaMsg&)> sent)
    : Thread("DataSender"), queue_(std::move(queue)), sent_(std::move(sent)) {}

DataSender::~DataSender() {
  if (!started()) return;
  Stop();
  Join();
}

void DataSender::SetState(State state) {
  const State before = state_.exchange(state);
  if (before == state) return;
  state_since_ = zem::Clock::Process().Now();
  ZLOG_INFO("Changed DS state from [%s] to [%s]", kStates[before].name, kStates[state].name);
  zem::SetThreadName(kStates[state].thread_name);
}

void DataSender::operator()() {
  zem::SetThreadName("DA:ds");
  IdaMsg batch;
  for (;;) {
    interruption().Point();
    const State state = state_;
    const size_t waiting = queue_->size();
    const auto head = queue_->peek(TypeOf);
    if (waiting == 0 || !head) {
      Idle(state);
      continue;
    }
    switch (state) {
      case kWaiting:
        WaitForManager();
        break;
      case kDoSyncInit:
        ZLOG_DEBUG("Data Sender is in DO_SYNC_INIT state");
        TakeOfFullSync(&batch);
        break;
      case kWaitingForData:
        ZLOG_DEBUG("Data Sender is in WAITING_FOR_DATA state");
        if (*head == DcMsg::DMT_INIT_START) {
          ZLOG_DEBUG("Message is of type DMT_INIT_START, sending SYNC_INIT_REQ");
          SetState(kWaiting);
          road_->SendCommand(kSyncRequest, kCommand, true);
        } else if (*head == DcMsg::DMT_UPDATE) {
          ZLOG_DEBUG("Message is of type DMT_UPDATE");
          SendUpdates(waiting, &batch);
        } else {
          // The rest of a full sync that the manager has not asked for yet.
          ZLOG_DEBUG("Message is of type %s", DcMsg::Type_Name(*head).c_str());
          WaitForManager();
        }
        break;
    }
  }
}

void DataSender::Idle(State state) {
  uint32_t idle = idle_count_;
  if (idle > kIdlePauses + zem::RandomNumber() % kIdleSpread) {
    if (state != kDoSyncInit) {
      ZLOG_INFO("Data Sender is going to send heartbeat");
      road_->SendCommand(kHeartbeat, kUpdate, true);
      return;
    }
    ZLOG_INFO("Full sync in progress, not sending hartbeat");
  }
  ZLOG_DEBUG("No message in the queue, going to wait.");
  interruption().SleepFor(kPause);
  // A message of another thread may have set it to 0 meanwhile.
  idle_count_.compare_exchange_strong(idle, idle + 1);
}

void DataSender::WaitForManager() {
  ZLOG_DEBUG("Data Sender going to wait.");
  interruption().SleepFor(kPause);
}

// The collector may clear the queue at any moment, and begin a full sync, which stays in the queue here.
void DataSender::SendUpdates(size_t most, IdaMsg* batch) {
  const zem::LoopStep step("updates");
  batch->Clear();
  const auto is_update = [](const DcMsg& record) { return record.type() == DcMsg::DMT_UPDATE; };
  for (; most > 0; --most) {
    auto record = queue_->remove_if(is_update);
    if (!record) break;
    AddObject(&*record, batch);
  }
  batch->set_message_type(kUpdate);
  if (batch->inventory_object_size() > 0) Send(batch);
}

void DataSender::TakeOfFullSync(IdaMsg* batch) {
  const zem::LoopStep step("full sync");
  auto record = queue_->remove_if([](const DcMsg&) { return true; });
  if (!record) return;
  switch (record->type()) {
    case DcMsg::DMT_INIT_START:
      ZLOG_DEBUG("Message is of type DO_SYNC_INIT");
      batch->Clear();
      [[fallthrough]];
    case DcMsg::DMT_INIT:
      if (record->type() == DcMsg::DMT_INIT) ZLOG_DEBUG("Message is of type DMT_INIT");
      batch->set_message_type(kFullSync);
      AddObject(&*record, batch);
      break;
    case DcMsg::DMT_INIT_END:
      ZLOG_DEBUG("Message is of type DMT_INIT_END");
      if (record->has_inventory_object()) AddObject(&*record, batch);
      Send(batch);
      break;
    default:
      AddObject(&*record, batch);
  }
}

void DataSender::Send(IdaMsg* batch) {
  ZLOG_INFO("Size of chunk message being sent to MP [%d]", batch->inventory_object_size());
  road_->SendMsg(*batch, true);
  ++messages_sent_;
  sent_(*batch);
  batch->Clear();
}

}  // namespace ZemDa
