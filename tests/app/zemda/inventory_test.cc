#include <gmock/gmock.h>

#include <sstream>
#include <string>
#include <vector>

#include "app/zemda/inventory/host_records.h"
#include "app/zemda/inventory/qub_inventory_parser.h"
#include "app/zemda/inventory/vm_records.h"
#include "platform/core/text_repair.h"
#include "proto/ida/ida.pb.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace ZemDa {
namespace {

namespace ida = orlane::zem::ida;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// Lines by ";".
std::vector<ReplyLine> Reply(const std::string& text) {
  std::vector<ReplyLine> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line, ';');) {
    line.erase(0, line.find_first_not_of(' '));
    const size_t at = line.find('=');
    lines.push_back({line.substr(0, at), at == std::string::npos ? "" : line.substr(at + 1)});
  }
  return lines;
}

const std::string kDevice =
    "MacAddress=00:50:00:00:10:01; MacKey=4000; DevName=n; LportAttachmentId=vif-1; BackingType=empty; "
    "BackingName=None; BackingPortSwitchUuid=None; BackingPortPortgroupKey=None; BackingPortPortKey=None; "
    "BackingPortConnectionCookie=None; config.hardware.device.uptv2Enabled=false;";

std::string Change(const std::string& name, const std::string& value) {
  return "Name=" + name + "; Operation=assign; Value=" + value + ";";
}

class InventoryTest : public testing::Test {
 protected:
  // "TYPE NAME EXTERNAL-ID" of each VM.
  std::vector<std::string> Parse(const std::string& text) {
    std::vector<std::string> found;
    for (const InventoryUpdate& update : parser.Parse(Reply(text))) {
      const auto& properties = std::get<QubVM>(update.object).properties;
      found.push_back(update.type + " " + ValueOf(properties, "name") + " " +
                      ValueOf(properties, "vmExternalId"));
    }
    return found;
  }

  zem::test::LogCapture log;
  QubInventoryParser parser;
};

TEST_F(InventoryTest, VmWithoutExternalIdWaitsForOne) {
  EXPECT_THAT(Parse("UpdateType=enter; ObjectType=VM; Name=web; MoId=12; ChangeDataStart;" +
                    Change("config.uuid", "u1") + "ChangeDataEnd; done"),
              IsEmpty());
  EXPECT_THAT(
      Parse("UpdateType=modify; ObjectType=VM; Name=web2; MoId=12; ChangeDataStart; ChangeDataEnd; done"),
      IsEmpty());
  const auto objects =
      parser.Parse(Reply("UpdateType=modify; ObjectType=VM; Name=web3; MoId=12; ChangeDataStart;" +
                         Change("vmExternalId", "e1") + "ChangeDataEnd; done"));
  ASSERT_THAT(objects, SizeIs(3));
  EXPECT_EQ(objects[0].type, "enter");
  EXPECT_EQ(objects[1].type, "enter");
  EXPECT_EQ(objects[2].type, "modify");
  for (const InventoryUpdate& each : objects) {
    EXPECT_EQ(ValueOf(std::get<QubVM>(each.object).properties, "vmExternalId"), "e1");
    EXPECT_EQ(ValueOf(std::get<QubVM>(each.object).properties, "config.uuid"), "u1");
  }
  // What was told once holds until the VM goes.
  EXPECT_THAT(Parse("UpdateType=leave; ObjectType=VM; Name=web3; MoId=12; ChangeDataEnd; done"),
              ElementsAre("leave web3 e1"));
  EXPECT_THAT(Parse("UpdateType=enter; ObjectType=VM; Name=other; MoId=12; ChangeDataEnd; done"), IsEmpty());
}

TEST_F(InventoryTest, WaitingHasLimits) {
  for (int i = 0; i < 70; ++i) {
    Parse("UpdateType=enter; ObjectType=VM; Name=n" + std::to_string(i) + "; MoId=1; ChangeDataEnd; done");
  }
  const auto found = Parse("UpdateType=enter; ObjectType=VM; Name=last; MoId=1; ChangeDataStart;" +
                           Change("vmExternalId", "e") + "ChangeDataEnd; done");
  ASSERT_THAT(found, SizeIs(65));
  EXPECT_EQ(found.front(), "enter n6 e");
}

TEST_F(InventoryTest, LinesThatBreakOff) {
  EXPECT_THAT(
      Parse("UpdateType=enter; ObjectType=VM; Name=a; MacAddress=00:50:00:00:10:01; MacKey=4000; done"),
      IsEmpty());
  EXPECT_TRUE(log.Contains("has 2 of 11 lines and is dropped"));
  const auto objects = parser.Parse(
      Reply("UpdateType=enter; ObjectType=VM; Name=a; MoId=1; MacKey=4000; ChangeDataStart; Name=name; "
            "Name=vmExternalId; Operation=assign; Value=e1; ChangeDataEnd; UpdateType=enter; ObjectType=VM; "
            "MoId=2; "
            "Unknown; ChangeDataStart; Name=vmExternalId; Operation=assign; Value=e2; done"));
  ASSERT_THAT(objects, SizeIs(2));
  EXPECT_THAT(std::get<QubVM>(objects[0].object).devices, IsEmpty());
  EXPECT_EQ(ValueOf(std::get<QubVM>(objects[1].object).properties, "vmExternalId"), "e2");
}

TEST_F(InventoryTest, RecordsOfAVm) {
  const auto objects =
      parser.Parse(Reply("UpdateType=modify; ObjectType=VM; Name=web; MoId=12;" + kDevice +
                         "MacKey=4000; ipAddress=10.0.0.5 2001:db8::5; runtime.device=1; MacKey=4000; "
                         "runtime.device.uptv2Active=True; "
                         "ChangeDataStart; Name=config.hardware.device[4001].backing; Operation=nicRemove;" +
                         Change("vmExternalId", "e1") + Change("runtime.powerState", "suspended") +
                         Change("ipAddresses", "empty") + Change("HDCS.agent", "true") +
                         Change("guest.hostName", "h") + Change("unknown", "x") + "ChangeDataEnd; done"));
  ASSERT_THAT(objects, SizeIs(1));
  const auto records = VmRecords(objects[0].type, std::get<QubVM>(objects[0].object));
  ASSERT_THAT(records, SizeIs(4));
  const auto& vm = records[0].virtual_machine();
  EXPECT_EQ(records[0].operation(), ida::InventoryObjectMsg::MODIFY);
  EXPECT_EQ(vm.vm_identifier().qub_identifier_entry_size(), 5);
  EXPECT_EQ(vm.vm_identifier().vm_identifier_entry(0).value(), "e1");
  std::vector<std::string> entries;
  for (const auto& entry : vm.vm_entry()) entries.push_back(std::to_string(entry.key()) + entry.value());
  EXPECT_THAT(entries, ElementsAre("0web", "1VM_SUSPENDED", "3", "5true"));
  EXPECT_EQ(vm.guest_info().guest_entry(0).value(), "h");
  EXPECT_EQ(vm.vm_runtime().vni_runtime(0).uptv2_state(), "True");
  const auto& vni = records[1].virtual_network_interface();
  EXPECT_EQ(vni.id(), "e1-4000");
  EXPECT_EQ(vni.vni_entry_size(), 11);
  EXPECT_TRUE(vni.vni_entry(4).has_value()) << "cleared";
  EXPECT_FALSE(vni.vni_entry(5).has_value()) << "absent";
  EXPECT_EQ(records[2].virtual_network_interface().ip_address_info(0).address(1), "2001:db8::5");
  EXPECT_EQ(records[2].virtual_network_interface().vni_entry_size(), 1);
  EXPECT_EQ(records[3].virtual_network_interface().id(), "e1-4001");
  EXPECT_EQ(records[3].operation(), ida::InventoryObjectMsg::LEAVE) << "the VM itself stays";
  ASSERT_EQ(records[3].virtual_network_interface().ip_address_info_size(), 1) << "it has no addresses";
  EXPECT_THAT(records[3].virtual_network_interface().ip_address_info(0).address(), IsEmpty());

  QubVM known_empty;
  known_empty.no_runtime_devices = true;
  EXPECT_TRUE(VmRecords("enter", known_empty)[0].virtual_machine().has_vm_runtime());
  EXPECT_FALSE(VmRecords("other", QubVM())[0].has_operation());
}

TEST_F(InventoryTest, HostIsToldAgainOnlyWhenItChanges) {
  zem::test::TempDir folder;
  std::vector<std::string> commands;
  HostRecords host(HostTables(
      [&](const shellCommand& command, std::string*) {
        commands.push_back(command.command);
        return 1;
      },
      folder.Path("none")));
  const auto told = [&](const std::string& text) {
    const auto objects = parser.Parse(Reply(text));
    return host.Update("modify", std::get<QubHost>(objects.at(0).object));
  };
  const auto objects =
      parser.Parse(Reply("UpdateType=enter; ObjectType=Host; MgmtVnicDevice=knl0; Name=knl0; "
                         "Operation=assign; MgmtVnicDevice=knl1; "
                         "Name=x; ChangeDataStart;" +
                         Change("config.network.dnsConfig.fqdn", "a") + Change("config.certificate", "None") +
                         "ChangeDataEnd; done"));
  const auto& qub = std::get<QubHost>(objects.at(0).object);
  EXPECT_THAT(qub.management_interfaces, ElementsAre("knl0"));
  EXPECT_TRUE(log.Contains("Operation not found for MgmtVnic."));
  const auto full = host.Full("enter", qub);
  ASSERT_EQ(full.host().host_entry_size(), 3);
  EXPECT_EQ(full.host().host_entry(0).value(), "HOST_TYPE_QUB");
  EXPECT_EQ(full.host().host_entry(2).value(), "");
  const std::string head = "UpdateType=modify; ObjectType=Host; ChangeDataStart;";
  EXPECT_FALSE(told(head + Change("config.network.dnsConfig.fqdn", "a") + "ChangeDataEnd; done"));
  const auto changed = told(head + Change("config.network.dnsConfig.fqdn", "b") + "ChangeDataEnd; done");
  ASSERT_TRUE(changed);
  EXPECT_EQ(changed->host().host_entry_size(), 1) << "not what was told before";
  EXPECT_FALSE(told(head + Change("config.network.dnsConfig.fqdn", "b") + "ChangeDataEnd; done"));
  const auto dpu = told(
      "UpdateType=modify; ObjectType=Host; host.dpu.Id=d1; host.dpu.firmwareversion=1; host.dpu.model=m; "
      "host.dpu.vendor=v; host.dpu.state=UNMANAGED; host.dpu.osversion=o; host.dpu.isprimary=True; "
      "host.dpu.dpualias=a; done");
  ASSERT_TRUE(dpu);
  EXPECT_EQ(dpu->host().dpu(0).state(), ida::DpuMsg::UNMANAGED);
  EXPECT_TRUE(dpu->host().dpu(0).is_primary());
  EXPECT_THAT(commands, IsEmpty());
}

TEST(TextRepairTest, OnlyWhatIsNoTextIsReplaced) {
  EXPECT_EQ(zem::RepairText("n\xc3\xa4me \xe2\x82\xac \xf0\x9f\x98\x80"),
            "n\xc3\xa4me \xe2\x82\xac \xf0\x9f\x98\x80");
  EXPECT_EQ(zem::RepairText("a\xff\x80z\xc3"), "a??z?");
  EXPECT_EQ(zem::RepairText("\xed\xa0\x80\xc0\xaf\xf4\x90\x80\x80"), "?????????");
}

}  // namespace
}  // namespace ZemDa
