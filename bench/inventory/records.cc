// The store's records of attachments: read, then written, one after the other, over the agent's store client
// and the node's store daemon; beside a bare client that makes the same calls with bytes that are ready.

#include <unistd.h>

#include <chrono>
#include <future>
#include <list>
#include <memory>
#include <stdexcept>
#include <variant>

#include "app/zemda/base/interruption.h"
#include "app/zemda/collector/vif_state.h"
#include "app/zemda/inventory/qub_inventory_parser.h"
#include "app/zemda/inventory/reply_reader.h"
#include "app/zemda/inventory/vm_records.h"
#include "app/zemda/records/covedb_connection_handler.h"
#include "bench/inventory/cases.h"
#include "covedbclient/covedb_client.h"
#include "platform/core/thread.h"
#include "platform/provider/provider.h"
#include "platform/rpc/status.h"
#include "proto/covedb/inventory_objects.pb.h"
#include "proto/ida/ida.pb.h"
#include "sim/store/object_registry.h"
#include "sim/store/store_daemon.h"

namespace zem::bench {
namespace {

namespace storage = orlane::zem::covedb;
using Clock = std::chrono::steady_clock;
using Vni = orlane::zem::ida::VirtualNetworkInterfaceMsg;

constexpr const char* kEndpoint = "tcp://127.0.0.1:32480";
constexpr std::chrono::seconds kPatience{60};

double SecondsSince(Clock::time_point begun) {
  return std::chrono::duration<double>(Clock::now() - begun).count();
}

// The interfaces of VMs, properties only.
std::vector<Vni> Interfaces(uint32_t count) {
  std::vector<ZemDa::ReplyLine> lines;
  const std::string text = ReplyAbout((count + 1) / 2);
  for (size_t at = 0; at < text.size();) {
    const size_t end = text.find('\n', at);
    lines.push_back(ZemDa::SplitLine(text.substr(at, end - at)));
    at = end + 1;
  }
  ZemDa::QubInventoryParser parser;
  std::vector<Vni> all;
  for (const ZemDa::InventoryUpdate& update : parser.Parse(lines)) {
    for (const auto& record : ZemDa::VmRecords(update.type, std::get<ZemDa::QubVM>(update.object))) {
      if (record.has_virtual_network_interface() &&
          record.virtual_network_interface().ip_address_info().empty())
        all.push_back(record.virtual_network_interface());
    }
  }
  return all;
}

// A store and a client of it, connected.
class Store {
 public:
  Store() {
    client_provider_.RunAsync(1);
    store_provider_.RunAsync(1);
    daemon_ = std::make_unique<sim::StoreDaemon>(store_provider_, kEndpoint, registry_);
    client_ = std::make_shared<covedb::CoveDbClient>("inventory", kEndpoint, client_provider_, nullptr, true,
                                                     true, false);
    client_->StartAsync();
    const auto limit = Clock::now() + kPatience;
    while (!Get("none")) {
      if (Clock::now() > limit) throw std::runtime_error("the store does not answer");
      SleepFor(std::chrono::milliseconds(10));
    }
  }
  ~Store() {
    client_.reset();
    client_provider_.StopAndWait(true);
    daemon_.reset();
    store_provider_.StopAndWait(true);
  }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  const std::shared_ptr<covedb::CoveDbClient>& client() const { return client_; }

  bool Get(const std::string& id) {
    storage::DaVifMsg key;
    key.set_vif_id(id);
    std::list<storage::ObjectRequestMsg> requests(1);
    requests.front().set_object_type(storage::DA_VIF);
    requests.front().set_object(key.SerializeAsString());
    const auto answered = std::make_shared<std::promise<bool>>();
    auto future = answered->get_future();
    const bool sent = client_->Get(
        requests, [answered](const auto&, const rpc::Status& status) { answered->set_value(status.ok()); },
        covedb::kDefaultVDb);
    return sent && future.get();
  }

  size_t Count() const {
    storage::GetRequestMsg request;
    request.add_object_request()->set_object_type(storage::DA_VIF);
    storage::GetResponseMsg response;
    if (!daemon_->store().Get(request, &response).ok()) throw std::runtime_error("the store refuses a look");
    return static_cast<size_t>(response.object_size());
  }
  void AwaitCount(size_t count) const {
    const auto limit = Clock::now() + kPatience;
    while (Count() != count) {
      if (Clock::now() > limit) throw std::runtime_error("the store lacks records");
      SleepFor(std::chrono::milliseconds(1));
    }
  }

 private:
  AsioZemProvider client_provider_;
  AsioZemProvider store_provider_;
  sim::ObjectRegistry registry_;
  std::unique_ptr<sim::StoreDaemon> daemon_;
  std::shared_ptr<covedb::CoveDbClient> client_;
};

double Ours(const std::vector<Vni>& interfaces) {
  Store store;
  const auto handler = std::make_shared<ZemDa::CoveDBConnectionHandler>();
  handler->connect(store.client());
  ZemDa::Interruption interruption;
  ZemDa::VifState state(handler, &interruption);
  const auto begun = Clock::now();
  for (const Vni& each : interfaces) state.Take(each, false);
  store.AwaitCount(interfaces.size());
  return SecondsSince(begun);
}

double Bare(uint32_t count) {
  Store store;
  std::vector<storage::DaVifMsg> ready(count);
  for (uint32_t i = 0; i < count; ++i) {
    ready[i].set_vif_id("f0000000-0000-4000-8000-" + std::to_string(100'000'000'000 + i));
    ready[i].add_owner_vm_local_id(std::to_string(i));
  }
  const auto begun = Clock::now();
  for (const storage::DaVifMsg& vif : ready) {
    // Once to see whether it is there, and once for the owners that a record would keep.
    if (!store.Get(vif.vif_id()) || !store.Get(vif.vif_id()))
      throw std::runtime_error("the store does not answer");
    std::list<storage::ModifyRequestMsg> requests(1);
    auto* const put = requests.front().add_modify_msg()->mutable_put_msg();
    put->set_object_type(storage::DA_VIF);
    put->set_object(vif.SerializeAsString());
    store.client()->Modify(std::move(requests), {});
  }
  store.AwaitCount(count);
  return SecondsSince(begun);
}

}  // namespace

void MeasureRecords(uint32_t count) {
  const auto interfaces = Interfaces(count);
  const double ours = Ours(interfaces);
  Line("record", "us", ours / static_cast<double>(interfaces.size()) * 1e6,
       Bare(static_cast<uint32_t>(interfaces.size())) / static_cast<double>(interfaces.size()) * 1e6);
}

}  // namespace zem::bench
