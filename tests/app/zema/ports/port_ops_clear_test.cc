#include <algorithm>

#include "app/zema/hostlib/port_props.h"
#include "app/zema/ports/port_file.h"
#include "platform/core/thread.h"
#include "tests/app/zema/ports/switch_host_test.h"

namespace zem::zema {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kNone = "(none)";

class PortOpsClearTest : public SwitchHostTest {
 protected:
  PortOpsClearTest() {
    Create(Description("lp-1"), kVif, Vm("vm1"));
    Create(Description("lp-2", "z2"), "vif-2", Vm("vm2"));
    Create(Description("lp-3"), "vif-4", Vm("vm3"));
    log.Clear();
    state->journal().Clear();
  }

  Outcome Clear(const std::string& zone, const std::string& port, const std::string& ls,
                const std::string& vif, bool force) {
    return ports.changes().ClearVifFromPort(zone, port, ls, vif, force);
  }
  std::string VifOf(const char* dvs, const char* port) const {
    return Property(dvs, port, port_props::kExternalId);
  }
};

// Which port loses its VIF, when the zone, the port or the logical switch are not those of the VIF.
TEST_F(PortOpsClearTest, OnlyTheMeantPortLosesItsVif) {
  struct {
    const char* zone;
    const char* port;
    const char* ls;
    const char* vif;
    bool force;
    const char* vif_of_lp1;
    const char* vif_of_lp2;
  } const cases[] = {
      {"z9", "lp-1", kLs, kVif, false, kVif, "vif-2"},
      {"z1", "", kLs, kVif, false, kVif, "vif-2"},
      {"z1", "lp-1", "ls-other", kVif, true, kVif, "vif-2"},
      {"z1", "lp-9", kLs, kVif, false, kVif, "vif-2"},
      {"z9", "", "ls-other", kVif, true, kVif, "vif-2"},
      {"z2", "lp-2", kLs, kVif, false, kVif, "vif-2"},
      {"z2", "lp-2", kLs, kVif, true, kNone, "vif-2"},
      {"z1", "lp-9", kLs, "vif-2", true, kNone, kNone},
      // The port has gone from one VIF to the next before the answer for the first came.
      {"z3", "lp-3", kLs, "vif-3", false, kNone, kNone},
      {"z3", "lp-3", kLs, "vif-3", true, kNone, kNone},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(std::string(row.zone) + " " + row.port + " " + row.ls + (row.force ? " forced" : ""));
    EXPECT_TRUE(Clear(row.zone, row.port, row.ls, row.vif, row.force));
    EXPECT_EQ(VifOf(kOverlay, "lp-1"), row.vif_of_lp1);
    EXPECT_EQ(VifOf(kVlanSwitch, "lp-2"), row.vif_of_lp2);
    EXPECT_EQ(VifOf(kOverlay, "lp-3"), "vif-4");
  }
}

// Or a restore from the file would give the VIF back to the port that it left.
TEST_F(PortOpsClearTest, FileForgetsTheVifToo) {
  ASSERT_TRUE(Clear("z1", "lp-1", kLs, kVif, false));
  ASSERT_TRUE(state->LosePorts(kOverlay));
  PortLocation found;
  std::string path = Vm("vm1");
  EXPECT_FALSE(ports.search().FindPortByVifUuid(kVif, kLs, &path, &found));
  EXPECT_THAT(state->Ports(kOverlay), IsEmpty());
}

// A file that could not be written, or was not because the agent died, is put right by the next try; it is
// written before its port is cleared, so that what a kill leaves still holds the VIF.
TEST_F(PortOpsClearTest, FileThatIsBehindItsPortIsSavedByTheNextTry) {
  const std::string file = PortFile("vm1", kOverlay, "lp-1");
  const auto in_file = [&](const char* text) {
    std::string bytes;
    EXPECT_EQ(ReadPortFile(file, &bytes), 0);
    return bytes.find(text) != std::string::npos;
  };
  const char* const no_state = "DVSKNL_PersistentPortStateGet count=1 ret=0xbad0001";
  Fault(no_state);
  EXPECT_FALSE(ports.changes().UpdateDvportRpcOp(kOverlay, "lp-1", "detach_port", "false"));
  EXPECT_FALSE(in_file("detach_port"));
  EXPECT_TRUE(ports.changes().UpdateDvportRpcOp(kOverlay, "lp-1", "detach_port", "false"));
  EXPECT_TRUE(in_file("detach_port"));
  Fault(no_state);
  EXPECT_FALSE(ports.changes().UpdateDvportRpcOp(kOverlay, "lp-1", "detach_port", "true"));
  EXPECT_TRUE(ports.changes().UpdateDvportRpcOp(kOverlay, "lp-1", "detach_port", "true"));
  EXPECT_FALSE(in_file("detach_port"));

  // One failure is made good at once, a second by the next try.
  Fault("DVSKNL_PersistentPortStateGet count=2 ret=0xbad0001");
  EXPECT_TRUE(Clear("z1", "lp-1", kLs, kVif, false));
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), kNone);
  EXPECT_TRUE(in_file(kVif));
  EXPECT_TRUE(Clear("z1", "lp-1", kLs, kVif, false));
  EXPECT_FALSE(in_file(kVif));

  ASSERT_TRUE(ports.properties().SetPortExtraConfig(kOverlay, "lp-1", port_props::kExternalId, kVif));
  Fault("DVSKNL_PortDataClear port=lp-1 count=2 ret=0xbad0001");
  state->journal().Clear();
  EXPECT_TRUE(Clear("z1", "lp-1", kLs, kVif, false));
  const auto calls = state->journal().Calls("lp-1");
  const auto first = [&](const char* function) {
    return std::find_if(calls.begin(), calls.end(),
                        [&](const std::string& call) { return call.find(function) != std::string::npos; });
  };
  EXPECT_LT(first("DVSKNL_PersistentPortStateGet"), first("DVSKNL_PortDataClear"));
  // A VIF that stays on its port is in its file again.
  ASSERT_TRUE(ports.properties().SetPortExtraConfig(kOverlay, "lp-1", port_props::kExternalId, kVif));
  Fault("DVSKNL_PortDataClear port=lp-1 count=3 ret=0xbad0001");
  EXPECT_FALSE(Clear("z1", "lp-1", kLs, kVif, false));
  EXPECT_TRUE(in_file(kVif));
}

TEST_F(PortOpsClearTest, ThirdTryIsTheLast) {
  Fault("DVSKNL_PortDataClear count=2 ret=0xbad0001");
  EXPECT_TRUE(Clear("z1", "lp-1", kLs, kVif, false));
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), kNone);
  EXPECT_EQ(log.Count("Retrying"), 2U);

  Fault("DVSKNL_PortDataClear count=3 ret=0xbad0001");
  EXPECT_THAT(Clear("z2", "lp-2", kLs, "vif-2", false).error(), HasSubstr("0xbad0001"));
  EXPECT_EQ(VifOf(kVlanSwitch, "lp-2"), "vif-2");

  EXPECT_EQ(ports.properties().ClearPortExtraConfig(kOverlay, "lp-1", "no.such"), 1);
}

TEST_F(PortOpsClearTest, StateThatCannotBeReadLeadsToAllSwitchesWhenForced) {
  Fault("DVSKNL_PortStateGet ret=0xbad0001");
  EXPECT_TRUE(Clear("z1", "lp-1", kLs, kVif, false));
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), kVif);
  EXPECT_TRUE(Clear("z1", "lp-1", kLs, kVif, true));
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), kNone);
}

TEST_F(PortOpsClearTest, OtherPortsOfTheVifLoseIt) {
  Create(Description("lp-5", "z2"), kVif, Vm("vm1"));
  EXPECT_TRUE(ports.changes().ClearVifFromPortOtherThan("lp-5", kVif));
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), kNone);
  EXPECT_EQ(VifOf(kVlanSwitch, "lp-5"), kVif);
  EXPECT_EQ(VifOf(kVlanSwitch, "lp-2"), "vif-2");
}

TEST_F(PortOpsClearTest, PendingOperationIsForgottenOnlyByItsOwnKind) {
  const auto update = [&](const char* operation, const char* done) {
    return ports.changes().UpdateDvportRpcOp(kOverlay, "lp-1", operation, done);
  };
  const auto pending = [&] { return Property(kOverlay, "lp-1", port_props::kPortOpPending); };
  EXPECT_TRUE(update("attach_port", "false"));
  EXPECT_TRUE(update("detach_port", "true"));
  EXPECT_EQ(pending(), "attach_port");
  std::string bytes;
  ASSERT_EQ(ReadPortFile(PortFile("vm1", kOverlay, "lp-1"), &bytes), 0);
  EXPECT_THAT(bytes, HasSubstr("attach_port"));
  EXPECT_TRUE(update("attach_port", "true"));
  EXPECT_EQ(pending(), kNone);
  EXPECT_FALSE(update("", "true"));
  Fault("DVSKNL_PortDataSet ret=0xbad0001");
  EXPECT_FALSE(update("attach_port", "false"));
}

TEST_F(PortOpsClearTest, OpaqueDataGoesAsAGroup) {
  ASSERT_TRUE(ports.properties().SetPortExtraConfig(kOverlay, "lp-1", port_props::kSecurityEnable, "true"));
  EXPECT_TRUE(ports.properties().ClearAllPortOpaqueData(kOverlay));
  for (const char* const key : port_props::kOpaqueData) EXPECT_EQ(Property(kOverlay, "lp-1", key), kNone);
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kAlias), "lp-1");
  EXPECT_EQ(VifOf(kVlanSwitch, "lp-2"), "vif-2");
  Fault("DVSKNL_SwitchPortList ret=0xbad0001");
  EXPECT_FALSE(ports.properties().ClearAllPortOpaqueData(kOverlay));
}

TEST_F(PortOpsClearTest, StaleLogicalPortGoesBeforeTheNewOneComes) {
  const auto set = [&](const char* value) {
    return ports.properties().SetPortExtraConfig(kOverlay, "lp-1", port_props::kLogicalPortId, value);
  };
  EXPECT_TRUE(set("a"));
  state->journal().Clear();
  EXPECT_TRUE(set("a"));
  EXPECT_THAT(state->journal().Calls("DVSKNL_PortDataSet"), IsEmpty());
  EXPECT_TRUE(set("b"));
  EXPECT_THAT(state->journal().Calls("DVSKNL_PortDataClear"), SizeIs(1));
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kLogicalPortId), "b");
}

// The library tells (in its violations, looked at by the fixture) when two threads are in a port list.
TEST_F(PortOpsClearTest, PortListsOfManyThreadsDoNotOverlap) {
  Fault("DVSKNL_SwitchPortList delay_ms=10");
  {
    std::vector<std::unique_ptr<NativeThread>> threads;
    for (int i = 0; i < 4; ++i) {
      threads.push_back(std::make_unique<NativeThread>(
          [this] { EXPECT_TRUE(ports.changes().FindAndClearExistingPortWithVifId("ls-none", kVif)); }));
    }
    for (const auto& thread : threads) thread->Join();
  }
  EXPECT_THAT(state->journal().Calls("DVSKNL_SwitchPortList"), SizeIs(8));
}

}  // namespace
}  // namespace zem::zema
