#include "app/zemda/collector/qub_data_collector.h"

#include <chrono>
#include <utility>
#include <variant>

#include "app/zemda/base/shell_command.h"
#include "app/zemda/inventory/vm_records.h"
#include "app/zemda/records/covedb_connection_handler.h"
#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/thread_name.h"
#include "proto/ida/ida.pb.h"

namespace ZemDa {
namespace {

using orlane::zem::ida::DcMsg;
using orlane::zem::ida::InventoryObjectMsg;
using std::chrono::seconds;

constexpr zem::LogSource kLog{"tarvik", "zemda"};

constexpr auto kAfterConnect = seconds(5);
constexpr auto kWhileBlocked = seconds(10);

}  // namespace

QubDataCollector::QubDataCollector(std::shared_ptr<DcQueue> queue, Sources sources)
    : DataCollector("QubDataCollector"),
      queue_(std::move(queue)),
      proxy_(std::move(sources.socket), interruption()),
      host_(HostTables(
          [this](const shellCommand& command, std::string* output) {
            const int result = ExecuteCommand(command, output, &interruption());
            interruption().Point();
            return result;
          },
          std::move(sources.capabilities))),
      vifs_(std::move(sources.store), &interruption()) {}

QubDataCollector::~QubDataCollector() {
  if (!started()) return;
  Stop();
  Join();
}

void QubDataCollector::operator()() {
  zem::SetThreadName("DA:DC");
  try {
    for (;;) {
      Reply reply = Begin();
      while (Step(&reply)) {
      }
    }
  } catch (const Interrupted&) {
    ZLOG_DEBUG("QUB Data Collector Thread is interrupted.");
    proxy_.Close();
  }
}

// Gives the reply of a full sync, whatever it takes.
QubDataCollector::Reply QubDataCollector::Begin() {
  for (;;) {
    if (!proxy_.Connect()) {
      ZLOG_WARN("Unable to start DA Lum Proxy. Retrying.");
      zem::SetThreadName("DA:LUMFail");
      interruption().SleepFor(kAfterConnect);
      continue;
    }
    interruption().SleepFor(kAfterConnect);
    if (!proxy_.AwaitHost()) {
      ZLOG_ERROR("MPA21005", "Unable to connect to python daemon on exisiting socket");
      proxy_.Close();
      continue;
    }
    ZLOG_INFO("QUB DA is in connected state.");
    zem::SetThreadName("DA:LUMACTIVE");
    auto reply = proxy_.FullSync();
    SetSyncInitRequested(false);
    if (proxy_.TakeError()) {
      ZLOG_ERROR("MPA21003", "Invalid response received from DA-LUM. Will retry connecting to python daemon");
      continue;
    }
    parser_.SetFullSync(true);
    first_ = true;
    return std::move(*reply);
  }
}

// Takes a reply and asks for the next; false when everything has to be asked anew.
bool QubDataCollector::Step(Reply* reply) {
  interruption().Point();
  if (blocked()) {
    ZLOG_INFO("Data Collector is in waiting state");
    interruption().SleepFor(kWhileBlocked);
    return true;
  }
  if (TakeSyncInitRequested()) {
    ZLOG_INFO("Data Collector is going to send complete sync data");
    // What it says of VMs that go is not said again, and the store has to learn of it.
    pushes_ = false;
    ParseAndPush(*reply);
    pushes_ = true;
    queue_->clear();
    return false;
  }
  ParseAndPush(*reply);
  auto next = proxy_.Updates();
  if (proxy_.TakeError()) {
    ZLOG_ERROR("MPA21003", "Invalid response received from DA-LUM. Will retry connecting to python daemon");
    return false;
  }
  *reply = std::move(*next);
  return true;
}

void QubDataCollector::ParseAndPush(const Reply& reply) {
  const zem::LoopStep step("reply of the host");
  refused_ = false;
  const auto objects = parser_.Parse(reply);
  for (const InventoryUpdate& update : objects) {
    if (const auto* const vm = std::get_if<QubVM>(&update.object)) {
      TakeVm(update.type, *vm);
    } else {
      TakeHost(update.type, std::get<QubHost>(update.object));
    }
  }
  if (!parser_.full_sync() || !pushes_) return;
  if (objects.empty()) {
    ZLOG_WARN("The inventory is empty: the next change goes out as everything");
    return;
  }
  parser_.SetFullSync(false);
  if (refused_) return;
  DcMsg end;
  end.set_type(DcMsg::DMT_INIT_END);
  if (!queue_->push(std::move(end))) {
    SetSyncInitRequested(true);
    return;
  }
  ZLOG_INFO("QUB DataCollector added a message to message queue, message type DMT_INIT_END.");
}

void QubDataCollector::TakeVm(const std::string& update_type, const QubVM& vm) {
  auto records = VmRecords(update_type, vm);
  const bool leaves = records.front().operation() == InventoryObjectMsg::LEAVE;
  const auto owner = records.front().virtual_machine();
  const int type = parser_.full_sync() ? DcMsg::DMT_INIT : DcMsg::DMT_UPDATE;
  for (InventoryObjectMsg& record : records) {
    if (record.has_virtual_network_interface()) {
      vifs_.Take(record.virtual_network_interface(), record.operation() == InventoryObjectMsg::LEAVE);
    }
    Push(std::move(record), type);
  }
  if (leaves) vifs_.VmLeaves(owner);
}

void QubDataCollector::TakeHost(const std::string& update_type, const QubHost& host) {
  if (parser_.full_sync()) {
    Push(host_.Full(update_type, host), DcMsg::DMT_INIT);
  } else if (auto record = host_.Update(update_type, host)) {
    Push(std::move(*record), DcMsg::DMT_UPDATE);
  }
}

// After a refusal nothing more of this pass goes in: what came behind the hole would look complete.
void QubDataCollector::Push(InventoryObjectMsg object, int type) {
  if (!pushes_ || refused_) return;
  DcMsg record;
  record.set_type(static_cast<DcMsg::Type>(type));
  if (type == DcMsg::DMT_INIT && std::exchange(first_, false)) record.set_type(DcMsg::DMT_INIT_START);
  *record.mutable_inventory_object() = std::move(object);
  const std::string name = DcMsg::Type_Name(record.type());
  if (!queue_->push(std::move(record))) {
    refused_ = true;
    SetSyncInitRequested(true);
    return;
  }
  ZLOG_INFO("QUB DataCollector added a message to message queue, message type %s", name.c_str());
}

}  // namespace ZemDa
