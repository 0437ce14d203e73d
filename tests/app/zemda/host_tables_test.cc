#include "app/zemda/hosttables/host_tables.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "proto/ida/ida.pb.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace ZemDa {
namespace {

namespace ida = orlane::zem::ida;
using testing::ElementsAre;

constexpr const char* kVirtual =
    "Interface  Port Group  IP Family  IP Address  Netmask        Broadcast    MAC Address        MTU   TSO "
    "MSS  "
    "Enabled  Type      NetStack\n"
    "knl0       mgmt        IPv4       192.0.2.10  255.255.255.0  192.0.2.255  00:50:00:00:00:01  1500  "
    "65535    true   "
    "  STATIC    default\n"
    "knl0       mgmt        IPv6       fe80::10    64             N/A          00:50:00:00:00:01  1500  "
    "65535    true   "
    "  AUTOCONF  default\n"
    "knl1       mgmt        other\n"
    "knl2       mgmt        IPv4       192.0.2.12\n";
constexpr const char* kPhysical =
    "Name  Pci           Driver  Admin  Link  Speed  Duplex  Mac                Mtu   Description\n"
    "----  ------------  ------  -----  ----  -----  ------  -----------------  ----  -----------\n"
    "nic0  0000:02:00.0  drva    Up     Down  0      Half    00:50:00:00:01:00  1500  Adapter A\n"
    "nic1  0000:03:00.0\n";
constexpr const char* kFastPath =
    "Name  Driver  ENS Capable  ENS Driven  INTR Capable  INTR Enabled  MAC Address        Description\n"
    "nic0  drva    True         False       True          False         00:50:00:00:01:00  Adapter A\n"
    "nic9  drva    True         False       True          False         00:50:00:00:01:09  Adapter A\n";

class HostTablesTest : public testing::Test {
 protected:
  ida::HostMsg Read(const std::map<std::string, std::string>& properties = {}) {
    const HostTables tables(
        [this](const shellCommand& command, std::string* output) {
          commands.push_back(command.command);
          *output = outputs[command.command];
          return results[command.command];
        },
        folder.Path("capability"));
    ida::HostMsg host;
    tables.AddInterfaces(properties, {"knl0"}, &host);
    tables.AddCapabilities(&host);
    return host;
  }
  static std::vector<std::string> Names(const ida::HostMsg& host) {
    std::vector<std::string> names;
    for (const auto& each : host.interface()) names.push_back(each.name());
    return names;
  }

  zem::test::LogCapture log;
  zem::test::TempDir folder;
  std::map<std::string, std::string> outputs = {{"/bin/qubcfg-knlnic -l", kVirtual},
                                                {"/sbin/localcli network nic list", kPhysical},
                                                {"/bin/qubcfg-nics -e", kFastPath}};
  std::map<std::string, int> results;
  std::vector<std::string> commands;
};

TEST_F(HostTablesTest, CellsByTheirColumns) {
  const auto host = Read({{"config.network.nics.vnic.knl0", "Changed"},
                          {"config.network.nics.vnic.knl0.LportAttachmentId", "vif-1"},
                          {"config.network.nics.vnic.knl0.ConnectedSwitch", "empty"},
                          {"config.network.nics.vnic.knl0.BackingPortConnectionCookie", ""},
                          {"config.network.switches", "Changed"},
                          {"config.network.switches.nic0", "ks-1"},
                          {"config.network.nics.dpuId.nic0", "dpu1"}});
  EXPECT_THAT(commands,
              ElementsAre("/bin/qubcfg-knlnic -l", "/sbin/localcli network nic list", "/bin/qubcfg-nics -e"));
  ASSERT_THAT(Names(host), ElementsAre("knl0", "knl2", "nic0", "nic1"));
  const auto& knl0 = host.interface(0);
  EXPECT_EQ(knl0.kind(), ida::InterfaceMsg::VIRTUAL);
  EXPECT_TRUE(knl0.is_management());
  EXPECT_TRUE(knl0.admin_up());
  EXPECT_EQ(knl0.mtu(), 1500);
  EXPECT_EQ(knl0.flags(), 4u);
  EXPECT_EQ(knl0.lport_attachment_id(), "vif-1");
  EXPECT_TRUE(knl0.has_connected_switch());
  EXPECT_EQ(knl0.connected_switch(), "");
  EXPECT_EQ(knl0.backing_port_connection_cookie(), "0");
  ASSERT_EQ(knl0.interface_entry_size(), 2);
  EXPECT_EQ(knl0.interface_entry(0).broadcast(), "192.0.2.255");
  EXPECT_FALSE(knl0.interface_entry(1).has_broadcast());
  EXPECT_EQ(knl0.interface_entry(1).address_mode(), 4u);
  EXPECT_EQ(host.interface(1).interface_entry(0).address_mode(), 2u) << "a line cut short";
  const auto& nic0 = host.interface(2);
  EXPECT_TRUE(nic0.admin_up());
  EXPECT_FALSE(nic0.link_up());
  EXPECT_EQ(nic0.connected_switch(), "ks-1");
  EXPECT_EQ(nic0.dpu_id(), "dpu1");
  EXPECT_EQ(nic0.flags(), 9u);
  EXPECT_FALSE(host.interface(3).has_flags());
  EXPECT_TRUE(
      log.Contains("InterfaceMsg nic9 is not listed by '/sbin/localcli network nic list', ignoring "
                   "reporting its ENS feature."));
}

// A message with half a character in it would be refused by the manager, and with it the whole inventory.
TEST_F(HostTablesTest, NoCellHasHalfACharacter) {
  outputs["/bin/qubcfg-knlnic -l"] += "interface-\xc3\xa9           IPv4\n";
  EXPECT_THAT(Names(Read()), testing::Contains("interface-?"));
}

TEST_F(HostTablesTest, TablesThatCannotBeHad) {
  outputs["/bin/qubcfg-knlnic -l"] = "Interface  Port Group  IP Family\nknl0 x IPv4\n";
  outputs["/bin/qubcfg-nics -e"] = "qubcfg-nics: invalid option -- 'e'\n";
  auto host = Read();
  EXPECT_TRUE(log.Contains("Failed to parse postion of IP Address in header of Virtual Nics output"));
  EXPECT_TRUE(log.Contains("Host probably does not support ENS feature."));
  EXPECT_THAT(Names(host), ElementsAre("nic0", "nic1"));
  results["/sbin/localcli network nic list"] = 3;
  host = Read();
  EXPECT_TRUE(log.Contains("Failed to execute command /sbin/localcli network nic list with reply Name"));
  EXPECT_EQ(host.interface_size(), 0);
  results.clear();
  outputs["/bin/qubcfg-nics -e"] = "";
  outputs["/sbin/localcli network nic list"] = "";
  EXPECT_EQ(Read().interface_size(), 0);
}

TEST_F(HostTablesTest, Capabilities) {
  namespace fs = std::filesystem;
  const fs::path capability = folder.Path("capability");
  fs::create_directories(capability / "folder");
  std::ofstream(capability / "b.xml")
      << "<capabilityList><capability><key>k2</key></capability></capabilityList>";
  std::ofstream(capability / "a.xml")
      << "<capabilityList><capability><key>k1</key><version>1</version></capability>"
         "<other/></capabilityList>";
  std::ofstream(capability / "c.xml") << "<capabilityList>";
  std::ofstream(capability / "d.xml") << "<other/>";
  ASSERT_EQ(::mkfifo((capability / "e").c_str(), 0600), 0);
  const auto host = Read();
  ASSERT_EQ(host.capability_entry_size(), 2);
  EXPECT_EQ(host.capability_entry(0).key(), "k1");
  EXPECT_EQ(host.capability_entry(1).key(), "k2");
  EXPECT_EQ(log.Count("Error in parsing XML file"), 2u);
}

}  // namespace
}  // namespace ZemDa
