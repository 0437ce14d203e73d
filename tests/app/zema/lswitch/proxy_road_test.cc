// The whole path from the store to the host's own script: the host gets what the store holds.

#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "app/zema/covedb/covedb_handler.h"
#include "app/zema/lswitch/covedb_update_task.h"
#include "app/zema/lswitch/db_svc_task_thread.h"
#include "app/zema/lswitch/logical_switch_batcher.h"
#include "app/zema/workers/worker_table.h"
#include "covedbclient/covedb_client.h"
#include "platform/core/thread.h"
#include "platform/provider/provider.h"
#include "platform/rpc/memory_network.h"
#include "sim/store/logical_switches.h"
#include "sim/store/store_daemon.h"
#include "tests/app/zema/lswitch/fake_host_parts.h"
#include "tests/app/zema/proxy/lum_sandbox.h"

namespace zem::zema {
namespace {

using namespace std::chrono_literals;
using orlane::zem::covedb::ObjectType;

constexpr const char* kEndpoint = "tcp://127.0.0.1:2480";

// The names of the networks that result from the script's journal.
std::set<std::string> Networks() {
  std::ifstream journal(std::string(test::kHost) + "/opaque_networks.log");
  std::map<std::string, std::string> by_uuid;
  const auto field = [](const std::string& line, const std::string& name) {
    const size_t at = line.find("\"" + name + "\": \"");
    if (at == std::string::npos) return std::string();
    const size_t begin = at + name.size() + 5;
    return line.substr(begin, line.find('"', begin) - begin);
  };
  for (std::string line; std::getline(journal, line);) {
    const std::string op = field(line, "op");
    if (op == "clear") by_uuid.clear();
    if (op == "set") by_uuid[field(line, "uuid")] = field(line, "name");
    if (op == "delete") by_uuid.erase(field(line, "uuid"));
  }
  std::set<std::string> names;
  for (const auto& [uuid, name] : by_uuid) names.insert(name);
  return names;
}

// Another process takes part, so everything runs in real time.
class Road {
 public:
  explicit Road(const LumSettings& settings) : lum(settings) {
    agent.RunAsync(1);
    store_provider.RunAsync(1);
    CoveDbHandler::Settings store;
    store.client = client;
    store.timers = &agent.timers();
    store.retry_interval = [] { return 1; };
    store.enqueue = [this](CovedbUpdateKind kind, covedb::MonitorUpdateMsg update, CovedbOrigin origin) {
      EnqueueCovedbUpdate(workers, kind, std::move(update), origin);
    };
    handler = std::make_shared<CoveDbHandler>(store);
    context = parts.Context(lum, handler, workers);
    WorkerFactory factory;
    factory.options = [] { return WorkerOptions{.ls_msg_batch_interval = 1, .ls_msg_wait = 1}; };
    factory.ls_batcher = [this] { return std::make_unique<LogicalSwitchMsgTask::Batcher>(context); };
    factory.database_handler = [this](const std::string& name) {
      return std::make_unique<DbSvcTaskThread>(name, context);
    };
    workers.SetFactory(std::move(factory));
  }
  ~Road() {
    workers.StopTaskThreads();
    workers.DeleteTaskThreadObjects();
    lum.TerminateZemaLumPy();
    client.reset();
    agent.StopAndWait(true);
    store_provider.StopAndWait(true);
  }

  bool Start() {
    if (lum.SetUp("user", "") != 0 || workers.StartTaskThreads() != 0) return false;
    client->StartAsync();
    handler->RegisterChannelStatus();
    handler->ConfigureMonitors();
    return true;
  }
  bool Change(const orlane::zem::covedb::ModifyRequestMsg& request) {
    return daemon.store().Modify({request}).ok();
  }
  bool Has(ObjectType type, const std::string& part) {
    orlane::zem::covedb::GetRequestMsg request;
    orlane::zem::covedb::GetResponseMsg response;
    request.add_object_request()->set_object_type(type);
    if (!daemon.store().Get(request, &response).ok() || response.object_size() == 0) return false;
    return registry.ToText(type, response.object(0).object()).find(part) != std::string::npos;
  }
  static bool Until(const std::function<bool()>& holds) {
    for (int i = 0; i < 1500; ++i) {
      if (holds()) return true;
      SleepFor(20ms);
    }
    return false;
  }

  rpc::MemoryNetwork network;
  AsioZemProvider agent;
  AsioZemProvider store_provider;
  const sim::ObjectRegistry registry;
  sim::StoreDaemon daemon{store_provider, kEndpoint, registry};
  std::shared_ptr<covedb::CoveDbClient> client =
      std::make_shared<covedb::CoveDbClient>("tarvik-agent", kEndpoint, agent, nullptr, true, true, false);
  LumHandler lum;
  FakeHostParts parts;
  WorkerTable workers;
  std::shared_ptr<CoveDbHandler> handler;
  std::shared_ptr<LogicalSwitchContext> context;
};

class ProxyRoadTest : public test::LumSandbox {};

TEST_F(ProxyRoadTest, TheHostGetsTheSwitchesOfTheStore) {
  EXPECT_EQ(
      Run([](test::LogCapture& log, LumSettings settings, std::string*) {
        Road road(settings);
        SANDBOX_EXPECT(road.Change(sim::PutLogicalSwitches({1, 250, 3, 1}, 5, true)));
        SANDBOX_EXPECT(road.Start());
        SANDBOX_EXPECT(Road::Until([&] { return road.Has(ObjectType::PROCESSED_BARRIER, "value: 5"); }));
        SANDBOX_EXPECT(!road.Has(ObjectType::RUNTIME_STATUS, "error"));
        SANDBOX_EXPECT(Networks().size() == 250);

        // The script ends in the middle of the next command; the agent sends the command again.
        test::Write("faults", "^createOpaqueNetwork\t0\t1\texit\n");
        SANDBOX_EXPECT(road.Change(sim::DeleteLogicalSwitches({1, 2, 1, 1}, 6)));
        SANDBOX_EXPECT(road.Change(sim::PutLogicalSwitches({251, 3, 3, 1}, 7, false)));
        SANDBOX_EXPECT(
            Road::Until([&] { return road.Has(ObjectType::RUNTIME_STATUS, "socket read failed"); }));
        SANDBOX_EXPECT(Road::Until([&] { return !road.Has(ObjectType::RUNTIME_STATUS, "error"); }));
        SANDBOX_EXPECT(road.Has(ObjectType::PROCESSED_BARRIER, "value: 7"));
        const std::set<std::string> names = Networks();
        SANDBOX_EXPECT(names.size() == 251);
        SANDBOX_EXPECT(names.count("ls-253") == 1 && names.count("ls-2") == 0);
        return 0;
      }),
      0);
}

}  // namespace
}  // namespace zem::zema
