#include <sys/stat.h>

#include <cstring>
#include <filesystem>

#include "app/zema/hostlib/port_props.h"
#include "app/zema/ports/port_file.h"
#include "platform/core/virtual_clock.h"
#include "tests/app/zema/ports/switch_host_test.h"

namespace zem::zema {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
namespace fs = std::filesystem;

class PortOpsCreateTest : public SwitchHostTest {};

TEST_F(PortOpsCreateTest, NewPortHasItsPropertiesAndItsFile) {
  PortConfigSpec description = Description("lp-1");
  description.init_state = "PENDING_CONF";
  description.org = "o";
  description.vpc = "v";
  description.uplink_teaming = "team-a";
  description.extra_configs = {{port_props::kLogicalPortId, "lp-1"}};
  Create(description, kVif, Vm("vm1"));

  auto properties = state->PortProperties(kOverlay, "lp-1");
  EXPECT_EQ(properties.extract(port_props::kConnectId).mapped().size(), 4U);
  const std::string file = PortFile("vm1", kOverlay, "lp-1");
  EXPECT_EQ(properties, (std::map<std::string, std::string>{
                            {port_props::kAlias, "lp-1"},
                            {port_props::kBlock, "true"},
                            {port_props::kBackingType, "zem"},
                            {port_props::kAttachmentState, "pending_conf"},
                            {port_props::kOrg, "o"},
                            {port_props::kVpc, "v"},
                            {port_props::kExternalId, kVif},
                            {port_props::kOpaqueNetworkId, kLs},
                            {port_props::kLogicalPortId, "lp-1"},
                            {port_props::kUplinkTeaming, "team-a"},
                            {port_props::kPersistPath, file},
                        }));
  struct stat status;
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  EXPECT_EQ(status.st_size % 512, 0);
  ASSERT_EQ(stat(fs::path(file).parent_path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0755U);
}

struct PlainCase {
  const char* zone;
  const char* init_state;
  const char* gcf_path;
  const char* block;
  const char* unblocked;
  const char* backing;
  const char* crx;
};

TEST_F(PortOpsCreateTest, StateKindAndPathDecideTheRest) {
  const std::string dvs_of_zone[] = {kOverlay, kVlanSwitch};
  const PlainCase cases[] = {
      {"z1", "UNBLOCKED_VLAN", "knlnic", "false", "true", "zem", "(none)"},
      {"z2", "", "knlnic", "true", "(none)", "(none)", "(none)"},
      {"z2", "OTHER", "host-CrX-1", "true", "(none)", "(none)", "true"},
  };
  int number = 0;
  for (const PlainCase& row : cases) {
    SCOPED_TRACE(row.gcf_path);
    const std::string port = "lp-" + std::to_string(number++);
    const std::string dvs = dvs_of_zone[row.zone[1] - '1'];
    PortConfigSpec description = Description(port, row.zone);
    description.init_state = row.init_state;
    Create(description, kVif, row.gcf_path);
    EXPECT_EQ(Property(dvs, port, port_props::kBlock), row.block);
    EXPECT_EQ(Property(dvs, port, port_props::kUnblockedVlan), row.unblocked);
    EXPECT_EQ(Property(dvs, port, port_props::kBackingType), row.backing);
    EXPECT_EQ(Property(dvs, port, port_props::kCrx), row.crx);
    EXPECT_EQ(Property(dvs, port, port_props::kPersistPath), "(none)");
  }
}

TEST_F(PortOpsCreateTest, VlanIsATrunkOnlyWithoutATag) {
  struct {
    int32_t vlan;
    size_t ranges;
    std::optional<uint32_t> mode;
    uint32_t tag;
    uint32_t written_ranges;
  } const cases[] = {
      {-1, 0, std::nullopt, 0, 0},   {0, 0, DVS_VLAN_ACCESS, 0, 0}, {7, 2, DVS_VLAN_ACCESS, 7, 0},
      {-1, 2, DVS_VLAN_TRUNK, 0, 2}, {0, 1, DVS_VLAN_TRUNK, 0, 1},
  };
  int number = 0;
  for (const auto& row : cases) {
    SCOPED_TRACE(number);
    PortConfigSpec description = Description("lp-" + std::to_string(number++));
    description.vlan = row.vlan;
    description.vlan_ranges.assign(row.ranges, {100, 200});
    Create(description, kVif, "knlnic");
    const auto bytes = state->PortProperty(kOverlay, description.port_id, port_props::kVlan);
    ASSERT_EQ(bytes.has_value(), row.mode.has_value());
    if (!bytes) continue;
    DVSVlanPolicy policy;
    ASSERT_GE(bytes->size(), sizeof(policy));
    std::memcpy(&policy, bytes->data(), sizeof(policy));
    EXPECT_EQ(policy.size, bytes->size());
    EXPECT_EQ(policy.mode, *row.mode);
    EXPECT_EQ(policy.vlan, row.tag);
    EXPECT_EQ(policy.num_ranges, row.written_ranges);
  }
}

// A port that the host unblocked meanwhile must not be blocked by an attach that comes again.
TEST_F(PortOpsCreateTest, ExistingPortKeepsItsBlockAndGetsANewCookie) {
  VirtualClock clock;
  Create(Description("lp-1"), kVif, Vm("vm1"));
  const std::string cookie = Property(kOverlay, "lp-1", port_props::kConnectId);
  ASSERT_TRUE(state->SetPortProperty(kOverlay, "lp-1", port_props::kBlock, "false"));
  clock.RunFor(std::chrono::seconds(5));
  state->journal().Clear();
  Create(Description("lp-1"), "vif-2", Vm("vm1"));
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kBlock), "false");
  EXPECT_NE(Property(kOverlay, "lp-1", port_props::kConnectId), cookie);
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kExternalId), "vif-2");
  EXPECT_THAT(state->journal().Calls("DVSKNL_PortAdd"), IsEmpty());
  EXPECT_THAT(log.Texts(), Contains(HasSubstr("[PortOp] block setting now [false]")));
}

TEST_F(PortOpsCreateTest, FileFollowsTheVmAndItsNeighbourStays) {
  Create(Description("lp-1"), kVif, Vm("vm1"));
  Create(Description("lp-2"), "vif-2", Vm("vm1"));
  Create(Description("lp-1"), kVif, Vm("vm2"));
  EXPECT_FALSE(fs::exists(PortFile("vm1", kOverlay, "lp-1")));
  EXPECT_TRUE(fs::exists(PortFile("vm1", kOverlay, "lp-2")));
  EXPECT_TRUE(fs::exists(PortFile("vm2", kOverlay, "lp-1")));
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kPersistPath), PortFile("vm2", kOverlay, "lp-1"));
}

TEST_F(PortOpsCreateTest, UnknownZoneChangesNothing) {
  EXPECT_EQ(ports.creation().CreatePort(Description("lp-1", "z9"), kVif, Vm("vm1"), true).error(),
            "Failed to create port lp-1 with VIF vif-1 because DVS id is not found by transport-zone id z9");
  EXPECT_THAT(log.Lines(), Contains(HasSubstr("errorCode=\"MPA44211\"")));
  EXPECT_THAT(state->journal().Calls(), IsEmpty());
}

// What keeps a port from being made, and what only leaves it incomplete, are failures alike.
TEST_F(PortOpsCreateTest, EachFailureOfTheSwitchIsTold) {
  struct {
    const char* fault;
    const char* tag;
    bool made;
  } const cases[] = {
      {"DVSData_Alloc count=1 ret=0xbad0001", "MPA44201", false},
      {"DVSData_Update skip=2 count=1 ret=0xbad0001", "MPA44203", false},
      {"DVSData_Serialize count=1 ret=0xbad0001", "MPA44203", false},
      {"DVSKNL_PortAdd count=1 ret=0xbad0001", "MPA44204", false},
      {"DVSKNL_PortDataSet prop=com.orlane.port.extraConfig.vnic.external.id count=1 ret=0xbad0001",
       "MPA44205", true},
  };
  int number = 0;
  for (const auto& row : cases) {
    SCOPED_TRACE(row.fault);
    const std::string port = "lp-" + std::to_string(number++);
    log.Clear();
    Fault(row.fault);
    EXPECT_THAT(ports.creation().CreatePort(Description(port), kVif, Vm("vm1"), true).error(),
                Not(IsEmpty()));
    EXPECT_THAT(log.Lines(), Contains(HasSubstr(row.tag)));
    EXPECT_EQ(state->Ports(kOverlay), row.made ? std::vector<std::string>{port} : std::vector<std::string>{});
    EXPECT_THAT(state->Faults(), IsEmpty());
    ASSERT_TRUE(state->LosePorts(kOverlay));
  }
}

// A VM gets its network without the file, too.  When its folder changes, the file before stays until the new
// one is there, and it is the port's as long as it stays.
TEST_F(PortOpsCreateTest, FileThatCannotBeWrittenIsToldAndKeepsNothingUp) {
  Create(Description("lp-1"), kVif, Vm("vm1"));
  const std::string before = PortFile("vm1", kOverlay, "lp-1");
  dir.Write("vm2", "no folder");
  Create(Description("lp-1"), kVif, Vm("vm2"));
  EXPECT_THAT(log.Lines(), Contains(HasSubstr("Error creating port file directory for port:lp-1")));
  EXPECT_TRUE(fs::exists(before));
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kPersistPath), before);

  Fault("DVSKNL_PersistentPortStateGet count=1 ret=0xbad0001");
  Create(Description("lp-1"), kVif, Vm("vm3"));
  EXPECT_THAT(log.Lines(), Contains(HasSubstr("Error saving port data file for port:lp-1")));
  EXPECT_TRUE(fs::exists(before));

  Create(Description("lp-1"), kVif, Vm("vm3"));
  EXPECT_FALSE(fs::exists(before));
  EXPECT_TRUE(fs::exists(PortFile("vm3", kOverlay, "lp-1")));

  // A pipe in the place of a file is none, and nobody waits for its other end.
  const std::string pipe = PortFile("vm3", kOverlay, "lp-1");
  ASSERT_EQ(::unlink(pipe.c_str()), 0);
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  std::string bytes;
  EXPECT_EQ(ReadPortFile(pipe, &bytes), EINVAL);
  EXPECT_TRUE(ports.changes().ClearVifFromPort("z1", "lp-1", kLs, kVif, false));
  EXPECT_TRUE(fs::is_regular_file(pipe));
}

// A key from outside that climbs out of the VM's directory must not become a file there.
TEST_F(PortOpsCreateTest, KeyThatIsAPathIsRefused) {
  EXPECT_FALSE(ports.creation().CreatePort(Description("../../x"), kVif, Vm("vm1"), true));
  EXPECT_FALSE(PortFilePath(dir.Path("vm1"), kOverlay, "../../x"));
  EXPECT_FALSE(PortFilePath(dir.Path("vm1"), "..", "lp"));
}

TEST_F(PortOpsCreateTest, PortFileIsWholeBlocksWithoutMemoryOfTheProcess) {
  const std::string path = dir.Path("file");
  ASSERT_EQ(WritePortFile(path, std::string(4000, 'x')), 0);
  ASSERT_EQ(WritePortFile(path, std::string(513, 'y')), 0);
  std::string bytes;
  ASSERT_EQ(ReadPortFile(path, &bytes), 0);
  EXPECT_EQ(bytes, std::string(513, 'y') + std::string(511, '\0'));
  EXPECT_EQ(WritePortFile(dir.Path("none/file"), "x"), -1);
  // A write that fails leaves what was there, and no draft.
  fs::create_directories(dir.Path("vm/.dvsData/ks/folder/full"));
  EXPECT_EQ(WritePortFile(dir.Path("vm/.dvsData/ks/folder"), "x"), -4);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.Path("vm/.dvsData")), fs::directory_iterator()), 1);
  EXPECT_EQ(ReadPortFile(dir.Path("none"), &bytes), ENOENT);
  EXPECT_EQ(ReadPortFile(dir.Path(), &bytes), EINVAL);
  fs::resize_file(path, 1024 * 1024 + 1);
  EXPECT_EQ(ReadPortFile(path, &bytes), EFBIG);
}

TEST_F(PortOpsCreateTest, DeletedPortTakesItsFileAndOnlyTheLeavingVmAll) {
  Create(Description("lp-1"), kVif, Vm("vm1"));
  Create(Description("lp-2"), "vif-2", Vm("vm1"));
  Create(Description("lp-3"), "vif-3", Vm("vm1"));
  EXPECT_TRUE(ports.changes().DeletePort(kOverlay, "lp-1", false));
  EXPECT_FALSE(fs::exists(PortFile("vm1", kOverlay, "lp-1")));
  EXPECT_TRUE(fs::exists(PortFile("vm1", kOverlay, "lp-2")));
  EXPECT_TRUE(ports.changes().DeletePort(kOverlay, "lp-2", true));
  EXPECT_FALSE(fs::exists(dir.Path("vm1/.dvsData")));
  EXPECT_EQ(state->Ports(kOverlay), std::vector<std::string>{"lp-3"});
  EXPECT_FALSE(DeletePortFile(dir.Path("vm1/vm1.cfg")));
}

TEST_F(PortOpsCreateTest, PropertyInAFileChangesWithoutAPort) {
  Create(Description("lp-1"), kVif, Vm("vm1"));
  const std::string file = PortFile("vm1", kOverlay, "lp-1");
  ASSERT_TRUE(state->LosePorts(kOverlay));
  const std::string value = "attach_port";
  EXPECT_TRUE(ports.files().UpdateExtraConfigInPortDataFile(file, port_props::kPortOpPending, &value));
  EXPECT_TRUE(ports.files().UpdateExtraConfigInPortDataFile(file, port_props::kBlock, nullptr));
  EXPECT_TRUE(ports.files().UpdateExtraConfigInPortDataFile(file, port_props::kBlock, nullptr));
  std::string bytes;
  ASSERT_EQ(ReadPortFile(file, &bytes), 0);
  ASSERT_EQ(library.PortAdd(kOverlay, "lp-1", bytes), 0U);
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kPortOpPending), value);
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kBlock), "(none)");
  dir.Write("torn", bytes.substr(0, 40));
  EXPECT_FALSE(ports.files().UpdateExtraConfigInPortDataFile(dir.Path("torn"), "a", &value));
  EXPECT_EQ(dir.Read("torn"), bytes.substr(0, 40));
}

}  // namespace
}  // namespace zem::zema
