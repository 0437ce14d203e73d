// Other processes wrote what the store sends: any object, in any order, between any marks and losses of the
// connection, must be realized or refused, and must never become a command with another meaning.

#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <list>
#include <string>
#include <utility>

#include "app/zema/covedb/covedb_handler.h"
#include "app/zema/lswitch/covedb_update_task.h"
#include "app/zema/lswitch/db_svc_task_thread.h"
#include "app/zema/lswitch/logical_switch_batcher.h"
#include "covedbclient/covedb_client_interface.h"
#include "framework/tasks/function_task.h"
#include "platform/core/virtual_clock.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/rpc/status.h"
#include "proto/covedb/switching_objects.pb.h"
#include "tests/app/zema/lswitch/checking_lum.h"
#include "tests/app/zema/lswitch/fake_host_parts.h"
#include "tests/app/zema/lswitch/fake_sender.h"
#include "tests/support/silent_log.h"

namespace {

using namespace zem;
using namespace zem::zema;
using orlane::zem::covedb::ObjectType;

// Holds the callbacks; the test takes the part of the store.
class StoreInHand : public covedb::CoveDbClientInterface {
 public:
  bool RegisterMonitorCallback(uint32_t, covedb::UpdateCallback on_update, covedb::BarrierCallback on_barrier,
                               uint16_t) override {
    update = std::move(on_update);
    barrier = std::move(on_barrier);
    return true;
  }
  void AddChannelStatusCallback(covedb::ChannelStatusCallback on_status) override {
    status = std::move(on_status);
  }
  bool AddMonitorSession(uint16_t) override { return true; }
  bool RemoveMonitorSession(uint16_t) override { return true; }
  bool EnableMonitorSessionCreation() override { return true; }
  bool ConfigureMonitor(const std::list<covedb::MonitorStatementMsg>&,
                        const std::list<covedb::MonitorStatementMsg>&, uint32_t, uint16_t) override {
    return true;
  }
  bool UpdateMonitor(const std::list<covedb::MonitorStatementUpdateMsg>&, uint16_t) override { return true; }
  bool GetServerSchemaVersion(std::function<void(const std::string&, const rpc::Status&)>) override {
    return false;
  }
  bool GetServerSchema(
      std::function<void(const std::string&, const std::string&, const rpc::Status&)>) override {
    return false;
  }
  void Modify(std::list<covedb::ModifyRequestMsg>, std::function<void()> done) override {
    if (done) done();
  }
  bool Get(const std::list<covedb::ObjectRequestMsg>&, covedb::ObjectsCallback callback, uint16_t) override {
    asked = std::move(callback);
    return true;
  }
  bool Query(const covedb::StatementMsg&, covedb::ObjectsCallback, uint16_t) override { return false; }
  bool CreateVDb(const std::string&, std::function<void(uint32_t, const rpc::Status&)>) override {
    return false;
  }
  bool DeleteVDb(const std::string&, std::function<void(const rpc::Status&)>, uint16_t) override {
    return false;
  }
  bool GetVDbId(const std::string&,
                std::function<void(const std::list<covedb::VDbMsg>&, const rpc::Status&)>) override {
    return false;
  }
  bool Echo(const std::string&, std::function<void(const std::string&, const rpc::Status&)>) override {
    return false;
  }
  void Start() override {}

  covedb::UpdateCallback update;
  covedb::BarrierCallback barrier;
  covedb::ChannelStatusCallback status;
  covedb::ObjectsCallback asked;
};

class Input {
 public:
  Input(const uint8_t* data, size_t size) : text_(reinterpret_cast<const char*>(data), size) {}
  bool empty() const { return text_.empty(); }
  uint8_t Byte() {
    if (text_.empty()) return 0;
    const auto byte = static_cast<uint8_t>(text_[0]);
    text_.remove_prefix(1);
    return byte;
  }
  std::string Bytes() {
    const size_t length = Byte();
    const std::string bytes(text_.substr(0, length));
    text_.remove_prefix(bytes.size());
    return bytes;
  }

 private:
  std::string_view text_;
};

ObjectType Type(uint8_t byte) {
  constexpr ObjectType kTypes[] = {ObjectType::OPAQUE_LOG_SWITCH_CONFIG,
                                   ObjectType::TRANSPORT_NODE_CONFIG,
                                   ObjectType::VIF_STATE,
                                   ObjectType::REALIZED_HOST_CONFIG,
                                   ObjectType::BARRIER,
                                   ObjectType::OBJECT_TYPE_NONE,
                                   ObjectType::RULE,
                                   ObjectType::OPAQUE_LOG_SWITCH_CONFIG};
  return kTypes[byte % std::size(kTypes)];
}

class Road : public TaskQueues {
 public:
  Road() {
    provider.RunAsync(1);
    CoveDbHandler::Settings settings;
    settings.client = store;
    settings.timers = &provider.timers();
    settings.retry_interval = [] { return 30; };
    settings.enqueue = [this](CovedbUpdateKind kind, covedb::MonitorUpdateMsg update, CovedbOrigin origin) {
      worker->AddTask(std::make_unique<CovedbUpdateTask>(kind, std::move(update), origin), false);
    };
    handler = std::make_shared<CoveDbHandler>(std::move(settings));
    context = parts.Context(lum, handler, *this);
    context->sender = &sender;
    batcher = std::make_unique<LogicalSwitchMsgTask::Batcher>(context);
    worker = std::make_unique<DbSvcTaskThread>("databaseHandlerThread", context);
    worker->Start();
    handler->RegisterChannelStatus();
    handler->ConfigureMonitors();
    store->status(true);
  }
  ~Road() override {
    worker->Stop();
    worker->Join();
    handler.reset();
    provider.StopAndWait(true);
  }

  bool AddTask(Worker worker, std::unique_ptr<Runnable> task) override {
    if (worker != Worker::kLogicalSwitch) return false;
    batch.push_back(std::move(task));
    return true;
  }
  void ClearTasks(Worker) override { batch.clear(); }
  bool Has(Worker worker) override { return worker == Worker::kLogicalSwitch; }

  // Returns when all waiting work is done.
  void Settle() {
    clock.Settle();
    batcher->Reset();
    for (const auto& task : std::exchange(batch, {})) {
      if (task->IsBatchable()) {
        batcher->AddTask(task.get());
      } else {
        batcher->UpdateBatcher(task.get());
        if (batcher->Count() == 0) task->Run();
      }
    }
    batcher->Run();
    sender.Take();
  }

  VirtualClock clock;
  AsioZemProvider provider;
  std::shared_ptr<StoreInHand> store = std::make_shared<StoreInHand>();
  CheckingLum lum;
  FakeSender sender;
  FakeHostParts parts{"host-1"};
  std::shared_ptr<CoveDbHandler> handler;
  std::shared_ptr<LogicalSwitchContext> context;
  std::vector<std::unique_ptr<Runnable>> batch;
  std::unique_ptr<LogicalSwitchMsgTask::Batcher> batcher;
  std::unique_ptr<DbSvcTaskThread> worker;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zem::test::SilenceLog();
  Road road;
  Input input(data, size);
  while (!input.empty()) {
    const uint8_t step = input.Byte();
    switch (step % 8) {
      case 0:
      case 1:
      case 2:
      case 3: {
        covedb::MonitorUpdateMsg update;
        update.set_object_type(Type(step >> 3));
        update.set_operation(input.Bytes());
        update.set_object(input.Bytes());
        if (step % 8 == 3) update.set_old_object(input.Bytes());
        road.store->update(update);
        break;
      }
      case 4:
        road.store->barrier();
        break;
      case 5:
        road.store->status(step >= 128);
        break;
      case 6: {
        if (!road.store->asked) break;
        std::list<covedb::TypedObjectMsg> objects;
        for (int i = step >> 5; i > 0; --i) {
          covedb::TypedObjectMsg& object = objects.emplace_back();
          object.set_object_type(Type(input.Byte()));
          object.set_object(input.Bytes());
        }
        std::exchange(road.store->asked, nullptr)(objects, rpc::Status());
        break;
      }
      default:
        if (step >= 192) road.handler->ScheduleFullSyncRead(road.handler->epoch());
        if (step >= 240) {
          road.handler->FlushDesiredConfig();
          road.handler->ResumeMonitors();
        }
        road.Settle();
        road.clock.RunFor(std::chrono::seconds(step >> 3));
    }
  }
  road.Settle();
  return 0;
}
