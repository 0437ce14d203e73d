#include <gmock/gmock.h>

#include "app/zemda/base/interruption.h"
#include "app/zemda/collector/vif_state.h"
#include "app/zemda/records/covedb_connection_handler.h"
#include "app/zemda/records/vif_msg_handler.h"
#include "app/zemda/records/vm_config_msg_handler.h"
#include "platform/core/thread.h"
#include "proto/covedb/inventory_objects.pb.h"
#include "proto/ida/ida.pb.h"
#include "tests/covedbclient/client_fixture.h"

namespace ZemDa {
namespace {

namespace ida = orlane::zem::ida;
namespace store = orlane::zem::covedb;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kUuid = "00000000-0000-0001-0000-000000000002";

// The handlers block, so each step has a thread of its own while the test moves the time.
class RecordsTest : public zem::covedb::test::ClientFixture {
 protected:
  RecordsTest() {
    Connect();
    handler->connect(client);
  }

  void Do(const std::function<void()>& step) {
    zem::NativeThread thread([&] { step(); });
    thread.Join();
    clock.RunFor(200ms);
  }
  static ida::VirtualNetworkInterfaceMsg Vni(const std::string& vm, const std::string& key) {
    ida::VirtualNetworkInterfaceMsg vni;
    auto* const id = vni.mutable_owner_vm()->add_qub_identifier_entry();
    id->set_key(ida::QUB_IDENTIFIER_HOST_LOCAL_ID);
    id->set_value(vm);
    Set(&vni, ida::VNI_PROPERTY_MAC_KEY, key);
    return vni;
  }
  static void Set(ida::VirtualNetworkInterfaceMsg* vni, ida::VniPropertyKey key, const std::string& value) {
    auto* const entry = vni->add_vni_entry();
    entry->set_key(key);
    entry->set_value(value);
  }
  static ida::VirtualNetworkInterfaceMsg Properties(const std::string& vm, const std::string& key,
                                                    const std::string& mac, const std::string& attachment) {
    auto vni = Vni(vm, key);
    Set(&vni, ida::VNI_PROPERTY_MAC_ADDRESS, mac);
    Set(&vni, ida::VNI_PROPERTY_LPORT_ATTACHMENT_ID, attachment);
    return vni;
  }
  static ida::VirtualNetworkInterfaceMsg Addresses(const std::string& vm, const std::string& key,
                                                   std::initializer_list<std::string> addresses) {
    auto vni = Vni(vm, key);
    auto* const info = vni.add_ip_address_info();
    info->set_source(0);
    for (const std::string& address : addresses) info->add_address(address);
    return vni;
  }
  static ida::VirtualMachineMsg Vm(const std::string& id, const std::string& external_id,
                                   const std::string& uuid = "") {
    ida::VirtualMachineMsg vm;
    auto* const local = vm.mutable_vm_identifier()->add_qub_identifier_entry();
    local->set_key(ida::QUB_IDENTIFIER_HOST_LOCAL_ID);
    local->set_value(id);
    auto* const bios = vm.mutable_vm_identifier()->add_qub_identifier_entry();
    bios->set_key(ida::QUB_IDENTIFIER_UUID);
    bios->set_value(uuid);
    auto* const external = vm.mutable_vm_identifier()->add_vm_identifier_entry();
    external->set_key(ida::VM_IDENTIFIER_EXTERNAL_ID);
    external->set_value(external_id);
    return vm;
  }
  void Take(const ida::VirtualNetworkInterfaceMsg& vni, bool leaves = false) {
    Do([&] { vifs.Take(vni, leaves); });
  }
  // "VIF owners binding-kind@mac..." of each record.
  std::vector<std::string> Vifs() {
    std::vector<std::string> texts;
    for (const std::string& object : Stored(store::DA_VIF)) {
      store::DaVifMsg vif;
      EXPECT_TRUE(vif.ParseFromString(object));
      std::string text = vif.vif_id();
      for (const std::string& owner : vif.owner_vm_local_id()) text += " " + owner;
      for (const auto& binding : vif.address_binding()) {
        text += " " + std::to_string(binding.binding_kind()) + "@" +
                std::to_string(binding.mac_address().value());
      }
      texts.push_back(text);
    }
    return texts;
  }
  std::vector<std::string> Vms() {
    std::vector<std::string> texts;
    for (const std::string& object : Stored(store::VM_CONFIG)) {
      store::VmConfigMsg vm;
      EXPECT_TRUE(vm.ParseFromString(object));
      texts.push_back(vm.id() + " " + vm.external_id() + (vm.has_bios_uuid() ? " bios" : "") +
                      (vm.has_instance_uuid() ? " instance" : ""));
    }
    return texts;
  }
  std::vector<std::string> Stored(store::ObjectType type) {
    std::vector<std::string> objects;
    store::GetRequestMsg request;
    request.add_object_request()->set_object_type(type);
    store::GetResponseMsg response;
    EXPECT_TRUE(daemon->store().Get(request, &response).ok());
    for (const auto& object : response.object()) objects.push_back(object.object());
    return objects;
  }
  void PutVm(const store::VmConfigMsg& vm) {
    store::ModifyMsg change;
    change.mutable_put_msg()->set_object_type(store::VM_CONFIG);
    change.mutable_put_msg()->set_object(vm.SerializeAsString());
    const auto requests = zem::covedb::test::Requests({change});
    ASSERT_TRUE(daemon->store().Modify({requests.begin(), requests.end()}).ok());
  }

  std::shared_ptr<CoveDBConnectionHandler> handler = std::make_shared<CoveDBConnectionHandler>();
  Interruption interruption;
  VifState vifs{handler, &interruption};
  VmConfigMsgHandler vms{handler, &interruption};
};

TEST_F(RecordsTest, AddressesWaitForTheAttachment) {
  Take(Addresses("1", "4000", {"10.0.0.5", "2001:db8::5", "nonsense"}));
  EXPECT_THAT(Vifs(), IsEmpty());
  Take(Properties("1", "4000", "00:00:00:00:00:10", "vif-1"));
  EXPECT_THAT(Vifs(), ElementsAre("vif-1 1 4@16 7@16"));
  Take(Properties("1", "4000", "00:00:00:00:00:11", "vif-1"));
  EXPECT_THAT(Vifs(), ElementsAre("vif-1 1 4@17 7@17")) << "another MAC";
  Take(Addresses("1", "4000", {}));
  EXPECT_THAT(Vifs(), ElementsAre("vif-1 1")) << "the guest has lost its addresses";
  Take(Properties("1", "4000", "00:00:00:00:00:11", "vif-2"));
  EXPECT_THAT(Vifs(), ElementsAre("vif-2 1"));
  Take(Properties("1", "4000", "00:00:00:00:00:11", ""));
  EXPECT_THAT(Vifs(), IsEmpty());
}

TEST_F(RecordsTest, SharedAttachmentGoesWithItsLastOwner) {
  Take(Properties("1", "4000", "00:00:00:00:00:10", "vif-1"));
  Take(Properties("2", "4000", "00:00:00:00:00:10", "vif-1"));
  EXPECT_THAT(Vifs(), ElementsAre("vif-1 1 2"));
  Take(Vni("1", "4000"), true);
  EXPECT_THAT(Vifs(), ElementsAre("vif-1 2"));
  Do([&] { vifs.VmLeaves(Vm("2", "e")); });
  EXPECT_THAT(Vifs(), IsEmpty());
  Do([&] { vifs.VmLeaves(Vm("2", "e")); });
}

// The writes wait in the client's queue; a read that overtook them would lose an owner.
TEST_F(RecordsTest, ReadsSeeOwnWritesThatAreOnTheirWay) {
  Do([&] {
    vifs.Take(Properties("1", "4000", "00:00:00:00:00:10", "vif-1"), false);
    vifs.Take(Properties("2", "4000", "00:00:00:00:00:10", "vif-1"), false);
    vifs.Take(Properties("1", "4000", "00:00:00:00:00:10", "vif-2"), false);
  });
  EXPECT_THAT(Vifs(), ElementsAre("vif-1 2", "vif-2 1"));
}

// After a restart of the agent the store knows more than it does.
TEST_F(RecordsTest, RecordOfAnEarlierLife) {
  Take(Properties("1", "4000", "00:00:00:00:00:10", "vif-1"));
  VifState later(handler, &interruption);
  Do([&] { later.Take(Properties("1", "4000", "00:00:00:00:00:12", "vif-1"), false); });
  EXPECT_THAT(Vifs(), ElementsAre("vif-1 1"));
  Do([&] { later.VmLeaves(Vm("1", "e")); });
  EXPECT_THAT(Vifs(), IsEmpty());
}

TEST_F(RecordsTest, VmsFollowTheMessages) {
  store::VmConfigMsg foreign;
  foreign.set_id("12");
  foreign.mutable_instance_uuid()->set_first(9);
  PutVm(foreign);
  foreign.set_id("99");
  PutVm(foreign);
  ida::IdaMsg message;
  message.set_message_type(0);
  *message.add_inventory_object()->mutable_virtual_machine() = Vm("12", "e12", kUuid);
  *message.add_inventory_object()->mutable_virtual_machine() = Vm("13", "e13", "no uuid");
  *message.add_inventory_object()->mutable_virtual_machine() = Vm("", "e14");
  Do([&] { vms.process(message); });
  EXPECT_THAT(Vms(), ElementsAre("12 e12 bios instance", "13 e13"))
      << "fields of others stay, VMs that are gone go";
  EXPECT_TRUE(log.Contains("Unable to parse VmConfigMsg"));

  message.Clear();
  message.set_message_type(1);
  *message.add_inventory_object()->mutable_virtual_machine() = Vm("12", "");
  auto* gone = message.add_inventory_object();
  gone->set_operation(ida::InventoryObjectMsg::LEAVE);
  *gone->mutable_virtual_machine() = Vm("13", "e13");
  Do([&] { vms.process(message); });
  EXPECT_THAT(Vms(), ElementsAre("12 e12 bios instance"));
  message.Clear();
  message.set_message_type(0);
  *message.add_inventory_object()->mutable_virtual_machine() = Vm("14", "e14");
  gone = message.add_inventory_object();
  gone->set_operation(ida::InventoryObjectMsg::LEAVE);
  *gone->mutable_virtual_machine() = Vm("14", "e14");
  Do([&] { vms.process(message); });
  EXPECT_THAT(Vms(), IsEmpty()) << "one that came and went in the message, too";
}

TEST_F(RecordsTest, StoreThatIsAway) {
  network.Break(zem::covedb::test::kEndpoint);
  daemon.reset();
  clock.RunFor(100ms);
  Do([&] {
    store::DaVifMsg vif;
    vif.set_vif_id("vif-1");
    VifMsgHandler reads(handler, nullptr);
    EXPECT_FALSE(reads.GetVif(&vif));
    EXPECT_FALSE(reads.GetVif(nullptr));
    reads.ModifyVif(store::DaVifMsg());
  });
  EXPECT_TRUE(log.Contains("GET DaVifStateMsg request failed."));
  EXPECT_TRUE(log.Contains("ModifyVif() received a vifMsg with no vif_id set. Aborting call"));
  Take(Properties("1", "4000", "00:00:00:00:00:10", "vif-1"));
  StartStore();
  clock.RunFor(20s);
  EXPECT_THAT(Vifs(), ElementsAre("vif-1 1")) << "what was written meanwhile arrives";
  EXPECT_FALSE(CoveDBConnectionHandler().modify({}, {}));
  EXPECT_FALSE(CoveDBConnectionHandler().get({}, {}));
}

// The answer of a read that was given up is not that of the next one.
TEST_F(RecordsTest, LateAnswer) {
  Take(Properties("1", "4000", "00:00:00:00:00:10", "vif-1"));
  store::DaVifMsg vif;
  vif.set_vif_id("vif-1");
  VifMsgHandler reads(handler, nullptr);
  daemon->faults().SetDelay("Get", 11s);
  const auto begin = clock.Now();
  Do([&] { EXPECT_FALSE(reads.GetVif(&vif)); });
  EXPECT_GE(clock.Now() - begin, 10s);
  EXPECT_LT(clock.Now() - begin, 11s);
  EXPECT_TRUE(log.Contains("Get DaVifStateMsg from CoveDB timed out"));
  daemon->faults().SetDelay("Get", 2s);
  store::DaVifMsg other;
  other.set_vif_id("vif-2");
  Do([&] { EXPECT_FALSE(reads.GetVif(&other)); });
  EXPECT_TRUE(log.Contains("Older callback received 1, current 3."));
  daemon->faults().SetGarbage("Get", 1);
  Do([&] { EXPECT_FALSE(reads.GetVif(&vif)); });
  EXPECT_TRUE(log.Contains("Error: Unable to parse VifMsg from coveDb"));
  Do([&] { EXPECT_TRUE(reads.GetVif(&vif)); });
}

TEST_F(RecordsTest, InterruptionEndsARead) {
  daemon->faults().SetFrozen(true);
  const auto begin = clock.Now();
  zem::NativeThread thread([&] {
    EXPECT_THROW(vifs.Take(Properties("1", "4000", "00:00:00:00:00:10", "vif-1"), false), Interrupted);
  });
  clock.RunFor(100ms);
  interruption.Request();
  thread.Join();
  EXPECT_LT(clock.Now() - begin, 1s);
  daemon->faults().SetFrozen(false);
}

}  // namespace
}  // namespace ZemDa
