#include "tests/world/world_inventory.h"

#include <chrono>
#include <set>

#include "app/zemda/service/discovery_agent.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/inventory_objects.pb.h"
#include "sim/host/virtual_machines.h"
#include "sim/store/store.h"

namespace zem::world {
namespace {

constexpr const char* kSocket = "/etc/orlane/QubDiscoveryAgent";
// A look at the host costs real time.
constexpr auto kLook = std::chrono::seconds(5);
constexpr int kHoldMs = 30'000;
constexpr uint32_t kFirstKey = 4000;
constexpr int kChecksOfAnAnswer = 12;

}  // namespace

WorldInventory::WorldInventory(const sim::HostState& host, sim::VirtualMachines& machines,
                               sim::Manager& manager)
    : machines_(machines), host_(host, machines), daemon_(host_, kSocket, kLook), manager_(manager) {
  daemon_.SetHold(kHoldMs);
}

WorldInventory::~WorldInventory() = default;

void WorldInventory::StartAgent(AsioZemProvider& provider,
                                std::shared_ptr<covedb::CoveDbClientInterface> store) {
  agent_ = std::make_unique<ZemDa::DiscoveryAgent>(provider, std::move(store));
  agent_->start();
}

void WorldInventory::StopAgent() {
  agent_->stop();
  agent_.reset();
}

void WorldInventory::Change(std::mt19937_64& random) {
  const auto machines = machines_.All();
  if (machines.empty()) return;
  const std::string& vm = machines[random() % machines.size()].uuid;
  const std::string number = std::to_string(random() % 200);
  switch (random() % 4) {
    case 0:
      host_.Rename(vm, "vm-" + number);
      break;
    case 1:
      host_.SetGuest(vm, "guest-" + number);
      break;
    case 2:
      host_.SetHostProperty("config.network.dnsConfig.fqdn", "host-" + number + ".example.net");
      break;
    default:
      host_.SetAddresses(vm, kFirstKey, {"10.1.0." + number, "2001:db8::" + number});
  }
}

void WorldInventory::Disturb(std::mt19937_64& random) {
  using Answers = sim::ManagerInventory::Answers;
  constexpr Answers kBad[] = {Answers::kNever, Answers::kGarbage, Answers::kForeignType};
  switch (random() % 5) {
    case 0:
      daemon_.running() ? daemon_.Stop() : daemon_.Start();
      break;
    case 1:
      daemon_.SetFaults({.unseen = static_cast<int>(random() % 3),
                         .cut = static_cast<int>(random() % 3),
                         .noise = static_cast<int>(random() % 3)});
      break;
    case 2:
      manager_.Forget();
      static_cast<void>(manager_.AskFullSync());  // there may be nobody to be asked
      break;
    default:
      manager_.SetAnswers(kBad[random() % 3], 1 + static_cast<int>(random() % 3));
  }
}

void WorldInventory::Calm() {
  daemon_.SetFaults({});
  daemon_.Start();
  manager_.SetAnswers(sim::ManagerInventory::Answers::kGood, 0);
  checks_ = 0;
}

std::vector<std::string> WorldInventory::Check(const sim::Store& store) {
  const auto facts = host_.Read();
  std::vector<std::string> lines = InventoryDiff(facts, manager_.state());
  std::set<std::string> wanted;
  for (const auto& [mo_id, vm] : facts.vms) {
    if (!vm.external_id.empty()) wanted.insert(std::to_string(mo_id));
  }
  orlane::zem::covedb::GetRequestMsg request;
  request.add_object_request()->set_object_type(orlane::zem::covedb::VM_CONFIG);
  orlane::zem::covedb::GetResponseMsg response;
  if (!store.Get(request, &response).ok()) lines.emplace_back("the store does not tell its VMs");
  for (const auto& object : response.object()) {
    orlane::zem::covedb::VmConfigMsg vm;
    if (!vm.ParseFromString(object.object()) || wanted.erase(vm.id()) == 0)
      lines.push_back("the store has a VM that is gone: " + vm.id());
  }
  for (const std::string& id : wanted) lines.push_back("the store lacks the VM " + id);
  if (!lines.empty() && ++checks_ % kChecksOfAnAnswer == 1) static_cast<void>(manager_.AskFullSync());
  for (const std::string& violation : manager_.state().violations) lines.push_back(violation);
  return lines;
}

}  // namespace zem::world
