#include "tests/world/world_inventory.h"

#include <arpa/inet.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <utility>

#include "app/zemda/service/discovery_agent.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/inventory_objects.pb.h"
#include "sim/host/host_state.h"
#include "sim/host/virtual_machines.h"
#include "sim/store/store.h"

namespace zem::world {
namespace {

namespace storage = orlane::zem::covedb;

constexpr const char* kSocket = "/etc/orlane/QubDiscoveryAgent";
// A look at the host costs real time.
constexpr auto kLook = std::chrono::seconds(5);
constexpr int kHoldMs = 30'000;
constexpr uint32_t kFirstKey = 4000;
constexpr int kChecksOfAnAnswer = 12;
constexpr const char* kToolFaults[] = {"qubcfg-knlnic exit 3", "qubcfg-knlnic column TSO MSS",
                                       "qubcfg-knlnic cut 20", "localcli nothing",
                                       "localcli exit 1",      "qubcfg-nics column ENS Driven"};

std::string ToolFaultsFile() { return sim::HostState::DefaultRoot() + "/host/inventory-tools"; }

template <class Message>
std::vector<Message> Records(const sim::Store& store, storage::ObjectType type) {
  storage::GetRequestMsg request;
  request.add_object_request()->set_object_type(type);
  storage::GetResponseMsg response;
  std::vector<Message> records;
  if (!store.Get(request, &response).ok()) return records;
  for (const auto& object : response.object()) records.emplace_back().ParseFromString(object.object());
  return records;
}

// A logical port's attachment as host and store have it; addresses in the form of the wire.
struct Attachment {
  std::set<std::string> owners;
  std::set<std::pair<uint64_t, std::string>> bindings;
};

std::string WireAddress(const std::string& text) {
  std::string bytes(sizeof(in6_addr), '\0');
  if (inet_pton(AF_INET, text.c_str(), bytes.data()) == 1) {
    bytes.resize(sizeof(in_addr));
  } else {
    inet_pton(AF_INET6, text.c_str(), bytes.data());
  }
  return bytes;
}

std::map<std::string, Attachment> AttachmentsOf(const sim::InventoryFacts& facts) {
  std::map<std::string, Attachment> all;
  for (const auto& [mo_id, vm] : facts.vms) {
    if (vm.external_id.empty()) continue;
    for (const auto& [key, nic] : vm.vnics) {
      if (nic.attachment.empty()) continue;
      Attachment& attachment = all[nic.attachment];
      attachment.owners.insert(std::to_string(mo_id));
      std::string digits = nic.mac;
      std::erase(digits, ':');
      for (const std::string& address : nic.addresses)
        attachment.bindings.emplace(std::stoull(digits, nullptr, 16), WireAddress(address));
    }
  }
  return all;
}

std::set<std::string> AttachmentsIn(const sim::InventoryFacts& facts) {
  std::set<std::string> ids;
  for (const auto& [id, attachment] : AttachmentsOf(facts)) ids.insert(id);
  return ids;
}

Attachment AttachmentOf(const storage::DaVifMsg& vif) {
  Attachment attachment;
  attachment.owners.insert(vif.owner_vm_local_id().begin(), vif.owner_vm_local_id().end());
  for (const auto& binding : vif.address_binding()) {
    const auto& ip = binding.ip_address();
    const uint32_t v4 = htonl(ip.ipv4());
    attachment.bindings.emplace(
        binding.mac_address().value(),
        ip.has_ipv4() ? std::string(reinterpret_cast<const char*>(&v4), sizeof(v4)) : ip.ipv6());
  }
  return attachment;
}

}  // namespace

WorldInventory::WorldInventory(const sim::HostState& host, sim::VirtualMachines& machines,
                               sim::Manager& manager, const sim::Store& store)
    : machines_(machines),
      store_(store),
      host_(host, machines),
      daemon_(host_, kSocket, kLook),
      manager_(manager) {
  daemon_.SetHold(kHoldMs);
  daemon_.SetObserver([this](const sim::InventoryFacts& before, const sim::InventoryFacts& now) {
    NoteUntold(AttachmentsIn(before), now);
  });
}

WorldInventory::~WorldInventory() = default;

void WorldInventory::StartAgent(AsioZemProvider& provider,
                                std::shared_ptr<covedb::CoveDbClientInterface> store) {
  // What the agent of before has put there, whatever it still knew of it.
  std::set<std::string> stored;
  for (const auto& vif : Records<storage::DaVifMsg>(store_, storage::DA_VIF)) stored.insert(vif.vif_id());
  NoteUntold(stored, host_.Read());
  agent_ = std::make_unique<ZemDa::DiscoveryAgent>(provider, std::move(store));
  agent_->start();
}

void WorldInventory::NoteUntold(const std::set<std::string>& before, const sim::InventoryFacts& now) {
  const std::set<std::string> attached = AttachmentsIn(now);
  const std::lock_guard lock(mutex_);
  std::set_difference(before.begin(), before.end(), attached.begin(), attached.end(),
                      std::inserter(orphans_, orphans_.end()));
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
  switch (random() % 6) {
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
    case 3:
      std::ofstream(ToolFaultsFile()) << kToolFaults[random() % std::size(kToolFaults)] << "\n";
      // The agent reads the tables when something of the host changes.
      host_.SetHostProperty("config.product.build", std::to_string(random() % 1000));
      break;
    default:
      manager_.SetAnswers(kBad[random() % 3], 1 + static_cast<int>(random() % 3));
  }
}

void WorldInventory::Calm() {
  std::filesystem::remove(ToolFaultsFile());
  daemon_.SetFaults({});
  daemon_.Start();
  manager_.SetAnswers(sim::ManagerInventory::Answers::kGood, 0);
  checks_ = 0;
}

std::vector<std::string> WorldInventory::Check() {
  const auto facts = host_.Read();
  std::vector<std::string> lines = InventoryDiff(facts, manager_.state());
  CheckVms(facts, &lines);
  if (!lines.empty() && ++checks_ % kChecksOfAnAnswer == 1) static_cast<void>(manager_.AskFullSync());
  CheckAttachments(facts, &lines);
  for (const std::string& violation : manager_.state().violations) lines.push_back(violation);
  return lines;
}

void WorldInventory::CheckVms(const sim::InventoryFacts& facts, std::vector<std::string>* lines) const {
  std::set<std::string> wanted;
  for (const auto& [mo_id, vm] : facts.vms) {
    if (!vm.external_id.empty()) wanted.insert(std::to_string(mo_id));
  }
  for (const auto& vm : Records<storage::VmConfigMsg>(store_, storage::VM_CONFIG)) {
    if (wanted.erase(vm.id()) == 0) lines->push_back("the store has a VM that is gone: " + vm.id());
  }
  for (const std::string& id : wanted) lines->push_back("the store lacks the VM " + id);
}

void WorldInventory::CheckAttachments(const sim::InventoryFacts& facts,
                                      std::vector<std::string>* lines) const {
  std::map<std::string, Attachment> wanted = AttachmentsOf(facts);
  const std::lock_guard lock(mutex_);
  for (const auto& vif : Records<storage::DaVifMsg>(store_, storage::DA_VIF)) {
    const auto found = wanted.find(vif.vif_id());
    if (found == wanted.end()) {
      if (orphans_.count(vif.vif_id()) == 0)
        lines->push_back("the store has an attachment that is gone: " + vif.vif_id());
      continue;
    }
    const Attachment is = AttachmentOf(vif);
    // An owner that left while no agent saw it stays.
    if (!std::includes(is.owners.begin(), is.owners.end(), found->second.owners.begin(),
                       found->second.owners.end()))
      lines->push_back("the store's attachment " + vif.vif_id() + " lacks an owner");
    if (is.bindings != found->second.bindings)
      lines->push_back("the store's attachment " + vif.vif_id() + " has other addresses than the host");
    wanted.erase(found);
  }
  for (const auto& [id, attachment] : wanted) lines->push_back("the store lacks the attachment " + id);
}

}  // namespace zem::world
