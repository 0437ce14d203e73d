#include <filesystem>

#include "app/zema/hostlib/port_props.h"
#include "app/zema/ports/port_file.h"
#include "app/zema/ports/vif_request.h"
#include "tests/app/zema/ports/switch_host_test.h"

namespace zem::zema {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
namespace fs = std::filesystem;

class PortOpsFindTest : public SwitchHostTest {
 protected:
  Outcome Find(const std::string& vif, std::string gcf_path) {
    path = std::move(gcf_path);
    found = {};
    return ports.search().FindPortByVifUuid(vif, kLs, &path, &found);
  }

  PortLocation found;
  std::string path;
};

TEST_F(PortOpsFindTest, PortInMemoryOnWhicheverSwitch) {
  Create(Description("lp-1"), kVif, Vm("vm1"));
  Create(Description("lp-2", "z2"), "vif-2", Vm("vm2"));
  Create(Description("lp-3"), "vif-3", "knlnic");

  EXPECT_TRUE(Find("vif-2", Vm("vm2")));
  EXPECT_EQ(found.dvs, kVlanSwitch);
  EXPECT_EQ(found.port, "lp-2");

  EXPECT_TRUE(Find(kVif, ""));
  EXPECT_EQ(path, dir.Path("vm1"));

  // A port without file has no directory to differ in.
  EXPECT_TRUE(Find("vif-3", Vm("vm1")));
  EXPECT_EQ(found.port, "lp-3");
}

TEST_F(PortOpsFindTest, AnotherDirectoryIsNotThePortThatWasMeant) {
  Create(Description("lp-1"), kVif, Vm("vm1"));
  EXPECT_EQ(Find(kVif, Vm("vm9")).error(), "Failed to find required port. GCF path [" + Vm("vm9") +
                                               "] specified for the port is different from the gcf path [" +
                                               dir.Path("vm1") + "] in memory");
  EXPECT_TRUE(ports.changes().UpdateGcfPath("z1", "lp-1", Vm("vm9")));
  EXPECT_TRUE(Find(kVif, Vm("vm9")));
  EXPECT_TRUE(fs::exists(PortFile("vm9", kOverlay, "lp-1")));
}

TEST_F(PortOpsFindTest, NothingIsReadFromTheDiskWithoutAVm) {
  Create(Description("lp-1"), kVif, Vm("vm1"));
  ASSERT_TRUE(state->LosePorts(kOverlay));
  state->journal().Clear();
  EXPECT_FALSE(Find(kVif, ""));
  EXPECT_FALSE(Find(kVif, "knlnic"));
  EXPECT_FALSE(Find("", Vm("vm1")));
  EXPECT_THAT(state->journal().Calls("DVSKNL_PortAdd"), IsEmpty());
}

// A switch that lost its ports: the one that was asked for comes back as it was, and no other.
TEST_F(PortOpsFindTest, LostPortComesBackFromItsFile) {
  Create(Description("lp-1"), kVif, Vm("vm1"));
  Create(Description("lp-2"), "vif-2", Vm("vm1"));
  const auto before = state->PortProperties(kOverlay, "lp-2");
  state->RebootHost();
  dir.Write("vm1/.dvsData/" + std::string(kOverlay) + "/lp-0", "torn");

  EXPECT_TRUE(Find("vif-2", Vm("vm1")));
  EXPECT_EQ(found.port, "lp-2");
  EXPECT_THAT(state->Ports(kOverlay), ElementsAre("lp-2"));
  EXPECT_EQ(state->PortProperties(kOverlay, "lp-2"), before);
  EXPECT_THAT(log.Lines(), Contains(HasSubstr("errorCode=\"MPA44206\"")));

  EXPECT_FALSE(Find("vif-9", Vm("vm1")));
  EXPECT_THAT(log.Texts(), Contains("[PortOp] Could not find port/vif"));
  EXPECT_THAT(state->Ports(kOverlay), ElementsAre("lp-2"));
}

// Ports that are there may be connected: none is removed or made anew, and a clone's folder, which holds the
// files of the VM that it was made of, gives nobody that VM's port.
TEST_F(PortOpsFindTest, PortsThatAreThereAreNeitherRemovedNorTakenFromAnotherVm) {
  Create(Description("lp-1"), kVif, Vm("vm1"));
  Create(Description("lp-2"), "vif-2", Vm("vm1"));
  fs::copy(dir.Path("vm1"), dir.Path("clone"), fs::copy_options::recursive);
  ASSERT_EQ(library.PortDataClear(kOverlay, "lp-1", port_props::kExternalId), 0U);
  state->journal().Clear();

  EXPECT_FALSE(Find("vif-9", Vm("vm1")));
  EXPECT_FALSE(Find(kVif, Vm("clone")));
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kExternalId), "(none)");
  // The VM's own port, which lost its VIF and kept its file, gets it back where it is.
  EXPECT_TRUE(Find(kVif, Vm("vm1")));
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kExternalId), kVif);
  // One that went to another VIF does not.
  ASSERT_TRUE(ports.properties().SetPortExtraConfig(kOverlay, "lp-1", port_props::kExternalId, "vif-3"));
  EXPECT_FALSE(Find(kVif, Vm("vm1")));
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kExternalId), "vif-3");
  EXPECT_THAT(state->journal().Calls("DVSKNL_PortRemove"), IsEmpty());
  EXPECT_THAT(state->journal().Calls("DVSKNL_PortAdd"), IsEmpty());
}

TEST_F(PortOpsFindTest, OneSwitchThatCannotListKeepsNobodyFromTheOther) {
  Create(Description("lp-2", "z2"), "vif-2", Vm("vm2"));
  Fault("DVSKNL_SwitchPortList sw=\"" + std::string(kOverlay) + "\" ret=0xbad0001");
  EXPECT_TRUE(Find("vif-2", Vm("vm2")));
  EXPECT_THAT(log.Lines(), Contains(HasSubstr("errorCode=\"MPA44209\"")));
}

TEST_F(PortOpsFindTest, SwitchOfSeveralZonesIsListedOnce) {
  EXPECT_FALSE(Find(kVif, ""));
  EXPECT_THAT(state->journal().Calls("DVSKNL_SwitchPortList"), SizeIs(2));
}

TEST_F(PortOpsFindTest, PriorPortIsPutOnTheSwitchOfTheNewZoneAlone) {
  Create(Description("lp-1"), kVif, Vm("vm1"));
  Create(Description("lp-2"), "vif-2", Vm("vm1"));
  state->RebootHost();
  EXPECT_TRUE(ports.search().FindPortToFetchVMTags("vif-2", kLs, Vm("vm1"), "z2", &found));
  EXPECT_EQ(found.dvs, kVlanSwitch);
  EXPECT_EQ(found.port, "lp-2");
  EXPECT_THAT(state->Ports(kVlanSwitch), ElementsAre("lp-2"));
  EXPECT_THAT(state->Ports(kOverlay), IsEmpty());
  EXPECT_FALSE(ports.search().FindPortToFetchVMTags("vif-2", kLs, "knlnic", "z2", &found));
}

TEST_F(PortOpsFindTest, ZonesComeFromTheHostAndStayWhenItIsSilent) {
  lum.Script("GetTzToDvsMapping()", {"ok|za:dvs-a:NVS|bad:entry|zb:dvs-b:KLN", "unknown command",
                                     "unknown command", "ok|za:dvs-a:NVS|zc:dvs-c:NVS"});
  EXPECT_TRUE(ports.zones().CacheTzToDvsMapping());
  EXPECT_EQ(ports.zones().GetDvsIdForTz("za"), "dvs-a");
  EXPECT_EQ(ports.zones().GetHostSwitchInfoForTz("zb").kind, "KLN");
  EXPECT_EQ(ports.zones().GetDvsIdForTz("z1"), "") << "the host has answered, so there is no such zone";
  EXPECT_FALSE(ports.zones().CacheTzToDvsMapping());
  EXPECT_EQ(ports.zones().GetDvsIdForTz("za"), "dvs-a");
  EXPECT_EQ(ports.zones().GetDvsIdForTz("zc"), "") << "asked again, in vain";
  EXPECT_EQ(ports.zones().GetDvsIdForTz("zc"), "dvs-c");
  EXPECT_EQ(ports.zones().GetDvsIdForTz("z1"), "");
  EXPECT_THAT(lum.commands, SizeIs(4));
}

TEST_F(PortOpsFindTest, VifsThatWaitForSiteConfigurationAreKeptAsTheyWereWhileRead) {
  lum.Script("GetVifUuidsForFetchingSiteConfig()", {"vif-1:ls-1:lp-1:z1|short:one|vif-2:ls-2:lp-2:z2", ""});
  EXPECT_TRUE(ports.site_configs().GetVifsForSiteConfig());
  const auto seen = ports.site_configs().VifsForSiteConfig();
  EXPECT_THAT(*seen, SizeIs(2));
  EXPECT_EQ(ports.site_configs().LookupVifRequest("vif-2")->port_id, "lp-2");
  EXPECT_EQ(ports.site_configs().LookupVifRequest("vif-2")->op_code, VifRequest::kFetchSiteConfig);
  ports.site_configs().RemoveVifForSiteConfig("vif-2");
  EXPECT_EQ(ports.site_configs().LookupVifRequest("vif-2"), nullptr);
  EXPECT_THAT(*seen, SizeIs(2));
  ports.site_configs().GetVifsForSiteConfig();
  EXPECT_THAT(log.Texts(), Contains("[PortOp] No ports found with pending attachment state to process"));
}

}  // namespace
}  // namespace zem::zema
