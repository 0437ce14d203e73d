// The store daemon of the simulated node, and the agent's store client.

#include <unistd.h>

#include <boost/property_tree/ptree.hpp>
#include <cstdio>
#include <list>
#include <mutex>

#include "bench/build_folder.h"
#include "bench/store/spawned.h"
#include "bench/store/subject.h"
#include "covedbclient/covedb_client.h"
#include "covedbclient/statements.h"
#include "platform/core/condition.h"
#include "platform/provider/provider.h"
#include "proto/covedb/scenario.pb.h"

namespace zem::bench {
namespace {

namespace proto = orlane::zem::covedb;

constexpr proto::ObjectType kType = proto::ObjectType::SCENARIO_OBJECT;
constexpr uint32_t kModule = 1;

class Ours final : public Subject {
 public:
  Ours() {
    const std::string line = store_.Line();
    address_ = "tcp://127.0.0.1:" + line.substr(line.rfind(' ') + 1);
    client_ =
        std::make_shared<covedb::CoveDbClient>("writer", address_, provider_, nullptr, true, true, false);
    provider_.RunAsync(1);
    client_->Start();
  }
  ~Ours() override {
    client_.reset();
    provider_.StopAndWait(true);
  }

  std::string address() const override { return address_; }

  void Put(Object first, uint32_t count) override {
    std::list<proto::ModifyRequestMsg> requests(1);
    proto::ScenarioObjectMsg object;
    object.set_text(ObjectText());
    for (uint32_t i = 0; i < count; ++i) {
      object.set_id(KeyText(first.key + i));
      object.set_number(i + 1 == count ? first.number : 0);
      proto::PutMsg* const put = requests.back().add_modify_msg()->mutable_put_msg();
      put->set_object_type(kType);
      object.SerializeToString(put->mutable_object());
    }
    {
      const std::lock_guard lock(mutex_);
      ++under_way_;
    }
    client_->Modify(std::move(requests), [this] {
      const std::lock_guard lock(mutex_);
      if (--under_way_ == 0) done_.NotifyAll();
    });
  }

  void Flush() override {
    std::unique_lock lock(mutex_);
    done_.Wait(lock, [this] { return under_way_ == 0; });
  }

 private:
  Spawned store_{{BuildFolder() + "/sim/store/zem-sim-store", "--listen", "tcp://127.0.0.1:0"}};
  std::string address_;
  AsioZemProvider provider_;
  std::shared_ptr<covedb::CoveDbClient> client_;
  std::mutex mutex_;  // guards under_way_
  Condition done_;
  int under_way_ = 0;
};

}  // namespace

std::unique_ptr<Subject> MakeOurs() { return std::make_unique<Ours>(); }

void WatchOurs(const std::string& address, const Watcher& watcher) {
  AsioZemProvider provider;
  const auto client =
      std::make_shared<covedb::CoveDbClient>("watcher", address, provider, nullptr, true, true, false);
  uint64_t objects = 0;
  bool complete = false;
  client->StartAsync();
  client->AddMonitorSession(covedb::kDefaultVDb);
  client->RegisterMonitorCallback(
      kModule,
      [&](const proto::MonitorUpdateMsg& update) {
        proto::ScenarioObjectMsg object;
        if (!object.ParseFromString(update.object())) std::_Exit(1);
        ++objects;
        if (complete && object.number() != 0) watcher.told(object.number());
      },
      [&] {
        if (std::exchange(complete, true)) return;
        watcher.complete(objects);
      },
      covedb::kDefaultVDb);
  client->ConfigureMonitor({covedb::MonitorStatementFor(kType)}, {}, kModule, covedb::kDefaultVDb);
  provider.Run(1);
  std::_Exit(0);
}

}  // namespace zem::bench
