#include "app/zema/ports/port_file.h"
#include "app/zema/vif/precreated_port_maker.h"
#include "tests/app/zema/vif/vif_host_test.h"

namespace zem::zema {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kNone = "(none)";

class VifDetachTest : public VifHostTest {
 protected:
  VifDetachTest() { Attach(kVif, "lp-1"); }

  static PortAttached Detached(const std::string& port, const std::string& vif,
                               const std::string& path = "") {
    PortAttached answer = Port(port);
    answer.vif_id = vif;
    answer.gcf_path = path;
    return answer;
  }
};

// What the manager names decides where the VIF is taken off.
TEST_F(VifDetachTest, AnswerOfTheManagerDecides) {
  struct {
    const char* what;
    PortAttached answer;
    const char* vif_left;
  } const cases[] = {
      {"port and VIF", Detached("lp-1", kVif), kNone},
      {"port alone", Detached("lp-1", ""), kNone},
      {"nothing", PortAttached(), kNone},
      {"the VM where it is", Detached("lp-1", "", Vm("vm1")), kVif},
      {"the VM elsewhere", Detached("lp-1", "", Vm("vm2")), kVif},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.what);
    road.script.push_back(row.answer);
    EXPECT_EQ(Done(Request(VifRequest::kDetach)).error_text, "");
    EXPECT_EQ(VifOf(kOverlay, "lp-1"), row.vif_left);
    Attach(kVif, "lp-1");
  }
  road.script.push_back(Detached("lp-1", "", Vm("vm2")));
  EXPECT_EQ(Done(Request(VifRequest::kDetach)).error_text, "");
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kPersistPath), PortFile("vm2", kOverlay, "lp-1"));
  PortAttached strange = Detached("lp-1", "", Vm("vm3"));
  strange.zone_id = "z9";
  road.script.push_back(strange);
  EXPECT_THAT(Done(Request(VifRequest::kDetach, kVif, kLs, "vm2")).error_text, HasSubstr("is ignored"));
}

TEST_F(VifDetachTest, ManagerThatIsNotReachedIsToldLater) {
  ASSERT_TRUE(ports.properties().SetPortExtraConfig(kOverlay, "lp-1", port_props::kCrx, "true"));
  EXPECT_EQ(Done(Request(VifRequest::kDetach)).error_text, "RPC call to ZEM management plane timout");
  EXPECT_EQ(PendingOf(kOverlay, "lp-1"), "detach_port");
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), kVif);
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kCrx), kNone);
  road.script.push_back(PortAttached());
  EXPECT_EQ(Done(Request(VifRequest::kSyncDetach)).error_text, "");
  EXPECT_EQ(PendingOf(kOverlay, "lp-1"), kNone);
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), kNone);

  // Its files may be another host's by now: they are not looked at.
  Attach(kVif, "lp-1");
  ASSERT_TRUE(state->LosePorts(kOverlay));
  EXPECT_EQ(Done(Request(VifRequest::kDetach)).error_text, "RPC call to ZEM management plane timout");
  EXPECT_THAT(state->Ports(kOverlay), IsEmpty());

  Fault("DVSKNL_PortDataClear count=3 ret=0xbad0001");
  Attach(kVif, "lp-1");
  Fault("DVSKNL_PortDataClear prop=com.orlane.port.extraConfig.vnic.external.id count=3 ret=0xbad0001");
  road.script.push_back(Detached("lp-1", kVif));
  EXPECT_THAT(Done(Request(VifRequest::kDetach)).error_text, HasSubstr("Failed to clear property"));
}

// The host takes back half of a reconfiguration: the port before is the VIF's again, at the manager and here.
TEST_F(VifDetachTest, UndoneMoveGivesThePortBeforeBack) {
  road.script.push_back(Moved(Port("lp-2", "z2", "ls-2"), "lp-1", "z1", kLs));
  ASSERT_EQ(Done(Request(VifRequest::kAttach, kVif, "ls-2")).error_text, "");
  road.asked.clear();
  PortAttached left = Port("lp-2", "z2", "ls-2");
  left.vif_id = kVif;
  road.script.push_back(left);
  road.script.push_back(Moved(Port("lp-1"), "lp-2", "z2", "ls-2"));
  VifRequest undo = Request(VifRequest::kDetach, kVif, "ls-2");
  undo.op_id = "op-7-2";
  EXPECT_EQ(Done(undo).error_text, "");
  ASSERT_THAT(road.asked, SizeIs(2));
  EXPECT_FALSE(road.asked[0].attach);
  EXPECT_TRUE(road.asked[1].attach);
  EXPECT_EQ(road.asked[1].switch_id, kLs);
  EXPECT_EQ(VifOf(kVlanSwitch, "lp-2"), kNone);
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), kVif);

  // Once only.
  road.asked.clear();
  road.script.push_back(Port("lp-1"));
  EXPECT_EQ(Done(Request(VifRequest::kDetach)).error_text, "");
  EXPECT_THAT(road.asked, SizeIs(1));
}

// The manager, or its answer to the undo, knows the VIF on a third switch by then.
TEST_F(VifDetachTest, UndoneMoveLeavesTheVifOnOnePort) {
  for (const bool told : {true, false}) {
    SCOPED_TRACE(told);
    road.script.push_back(Moved(Port("lp-2", "z2", "ls-2"), "lp-1", "z1", kLs));
    ASSERT_EQ(Done(Request(VifRequest::kAttach, kVif, "ls-2")).error_text, "");
    PortConfigSpec third = Description("lp-3", "z2");
    third.switch_id = "ls-3";
    Create(third, kVif, Vm("vm1"));
    PortAttached left = Port("lp-2", "z2", "ls-2");
    left.vif_id = kVif;
    road.script.push_back(left);
    road.script.push_back(told ? Moved(Port("lp-1"), "lp-3", "z2", "ls-3") : Port("lp-1"));
    EXPECT_EQ(Done(Request(VifRequest::kDetach, kVif, "ls-2")).error_text, "");
    EXPECT_EQ(VifOf(kVlanSwitch, "lp-2"), kNone);
    EXPECT_EQ(VifOf(kVlanSwitch, "lp-3"), kNone);
    EXPECT_EQ(VifOf(kOverlay, "lp-1"), kVif);
  }
}

// Only the operation that moved the VIF takes the move back, and only what it had on this host.
TEST_F(VifDetachTest, LaterEndOfTheVmUndoesNoMove) {
  const struct {
    const char* what;
    const char* old_host;
    const char* op_id;
  } cases[] = {
      {"another operation", "host-1", "op-8-1"},
      {"moved here from another host", "host-2", "op-7-2"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.what);
    PortAttached moved = Moved(Port("lp-2", "z2", "ls-2"), "lp-1", "z1", kLs);
    moved.host_id = row.old_host;
    road.script.push_back(moved);
    ASSERT_EQ(Done(Request(VifRequest::kAttach, kVif, "ls-2")).error_text, "");
    road.asked.clear();
    PortAttached left = Port("lp-2", "z2", "ls-2");
    left.vif_id = kVif;
    road.script.push_back(left);
    VifRequest end = Request(VifRequest::kDetach, kVif, "ls-2");
    end.op_id = row.op_id;
    EXPECT_EQ(Done(end).error_text, "");
    EXPECT_THAT(road.asked, SizeIs(1));
    EXPECT_EQ(VifOf(kVlanSwitch, "lp-2"), kNone);
    EXPECT_EQ(VifOf(kOverlay, "lp-1"), kNone);
    Attach(kVif, "lp-1");
  }
}

// It came from another host, on the same logical switch: its end here undoes no move.
TEST_F(VifDetachTest, VifFromAnotherHostIsNotTakenBackAtItsEnd) {
  road.script.push_back(Moved(Port("lp-1"), "lp-1", "z8", kLs));
  ASSERT_EQ(Done(Request(VifRequest::kAttachToVifUuid)).error_text, "");
  road.asked.clear();
  PortAttached left = Port("lp-1");
  left.vif_id = kVif;
  road.script.push_back(left);
  EXPECT_EQ(Done(Request(VifRequest::kDetach)).error_text, "");
  EXPECT_THAT(road.asked, SizeIs(1));
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), kNone);
}

// What ties a port for its security goes with the operation, whatever the manager says of it, unless the port
// has been tied to another VIF since.
TEST_F(VifDetachTest, SecurityOnlyPortIsUntied) {
  VifRequest attach = Request(VifRequest::kAttach, "vif-5", "dvportgroup-7");
  attach.security_switch_id = kOverlay;
  attach.port_id = "lp-1";
  VifRequest detach = attach;
  detach.op_code = VifRequest::kDetach;
  const auto tied = [&] {
    road.script.push_back(Port("lp-5"));
    EXPECT_EQ(Done(attach).error_text, "");
    EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kSecurityEnable), "true");
  };
  for (const auto& answer :
       {ScriptedManager::Answer(PortAttached()), ScriptedManager::Answer(Refusal("no"))}) {
    tied();
    road.script.push_back(answer);
    Done(detach);
    for (const char* const key : port_props::kOpaqueData) EXPECT_EQ(Property(kOverlay, "lp-1", key), kNone);
  }
  tied();
  health.setZemaLumNotReady();
  EXPECT_THAT(Done(detach).error_text, testing::StartsWith("ZEMA Lum not ready"));
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), kNone) << "refused, and the vNIC is gone all the same";
  health.setZemaLumReady();
  tied();
  detach.vif_id = "vif-4";
  road.script.push_back(PortAttached());
  Done(detach);
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), "vif-5");
}

TEST_F(VifDetachTest, ManagerTakesTheAttachmentAway) {
  VifRequest request = Request(VifRequest::kManagerDetach);
  request.zone_id = "z1";
  request.port_id = "lp-1";
  EXPECT_EQ(Done(request).error_text, "");
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), kNone);
  // The VM's own detach comes when nothing is left to do.
  road.script.push_back(PortAttached());
  EXPECT_EQ(Done(Request(VifRequest::kDetach)).error_text, "");
  EXPECT_THAT(state->Ports(kOverlay), ElementsAre("lp-1"));
}

// The VM runs on another host by now, which sees the same folder and has made the port of the same name.
TEST_F(VifDetachTest, FileOfTheHostThatTheVmHasGoneToStays) {
  const std::string file = PortFile("vm1", kOverlay, "lp-1");
  std::string before;
  ASSERT_EQ(ReadPortFile(file, &before), 0);
  const auto cookie = [&](const char* bytes) {
    ASSERT_EQ(library.PortDataSet(kOverlay, "lp-1", port_props::kConnectId, bytes), 0U);
  };
  cookie("\1\1\1\1");
  road.script.push_back(Detached("lp-1", kVif));
  EXPECT_EQ(Done(Request(VifRequest::kDetach)).error_text, "");
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), kNone);
  std::string after;
  ASSERT_EQ(ReadPortFile(file, &after), 0);
  EXPECT_EQ(after, before);

  // One that was not finished here is this host's all the same.
  Attach(kVif, "lp-1");
  cookie("\xff\xff\xff\x7f");
  road.script.push_back(Detached("lp-1", kVif));
  EXPECT_EQ(Done(Request(VifRequest::kDetach)).error_text, "");
  ASSERT_EQ(ReadPortFile(file, &after), 0);
  EXPECT_NE(after, before);
}

// The clocks of two hosts differ, so they are not asked where the file says whose it is.
TEST_F(VifDetachTest, FileSaysWhichHostHasSavedIt) {
  identity.SetHostId("host-1");
  const std::string other = "host-2";
  const std::string file = PortFile("vm1", kOverlay, "lp-1");
  enum { kOwn, kTheirsAfterOurs, kTheirsBeforeOurs };
  for (const int whose : {kOwn, kTheirsAfterOurs, kTheirsBeforeOurs}) {
    SCOPED_TRACE(whose);
    if (whose == kTheirsBeforeOurs) Fault("DVSKNL_PersistentPortStateGet count=1 ret=0xbad0001");
    Attach(kVif, "lp-1");
    if (whose != kOwn) {
      ASSERT_TRUE(ports.files().UpdateExtraConfigInPortDataFile(file, port_props::kSavedBy, &other));
    }
    const char* const cookie = whose == kOwn ? "\1\1\1\1" : "\xff\xff\xff\x7f";
    ASSERT_EQ(library.PortDataSet(kOverlay, "lp-1", port_props::kConnectId, cookie), 0U);
    std::string before;
    std::string after;
    ASSERT_EQ(ReadPortFile(file, &before), 0);
    road.script.push_back(Detached("lp-1", kVif));
    EXPECT_EQ(Done(Request(VifRequest::kDetach)).error_text, "");
    ASSERT_EQ(ReadPortFile(file, &after), 0);
    EXPECT_EQ(after == before, whose == kTheirsAfterOurs);
  }

  // The VM has come back without the manager: the port still has the VIF, or gets it from the other host's
  // file.
  for (const bool from_file : {false, true}) {
    SCOPED_TRACE(from_file);
    Attach(kVif, "lp-1");
    ASSERT_TRUE(ports.files().UpdateExtraConfigInPortDataFile(file, port_props::kSavedBy, &other));
    if (from_file) {
      ASSERT_EQ(ports.properties().ClearPortExtraConfig(kOverlay, "lp-1", port_props::kExternalId), 0);
    }
    EXPECT_EQ(Done(Request(VifRequest::kAttach)).error_text, "");
    EXPECT_EQ(VifOf(kOverlay, "lp-1"), kVif);
    road.script.push_back(Detached("lp-1", kVif));
    EXPECT_EQ(Done(Request(VifRequest::kDetach)).error_text, "");
    std::string bytes;
    ASSERT_EQ(ReadPortFile(file, &bytes), 0);
    EXPECT_THAT(bytes, testing::Not(HasSubstr(kVif)));
  }
}

TEST_F(VifDetachTest, ManagerWantsAPortBack) {
  VifRequest request = Request(VifRequest::kRestore);
  request.state_text = "ACTIVE";
  request.gcf_path.clear();
  host.UnsetHostId();
  EXPECT_EQ(Done(request).error_text, "");
  EXPECT_THAT(road.restored, IsEmpty());
  EXPECT_TRUE(log.Contains("Ignored vif restore for the host is not setup for zem operation"));
  host.SetHostId("host-1");

  lum.rpc_reply = Vm("vm1");
  ASSERT_TRUE(state->LosePorts(kOverlay));
  // The answer may take long: the VIF is free while it is on its way.
  road.while_answering = [this] {
    road.script.push_back(Port("lp-1"));
    EXPECT_EQ(Done(Request(VifRequest::kSyncAttach)).error_text, "");
  };
  Done(request);
  EXPECT_THAT(lum.commands, ElementsAre("17:vifId=vif-1|portId="));
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), kVif);
  request.vif_id = "vif-none";
  Done(request);

  VifRequest security = Request(VifRequest::kRestore, kVif, "dvportgroup-7");
  security.security_switch_id = kOverlay;
  security.port_id = "lp-5";
  security.state_text = "SECURED";
  security.spec = std::make_shared<PortConfigSpec>();
  security.spec->port_id = "lp-1";
  security.spec->init_state = "SECURITY_ONLY";
  Done(security);
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kLogicalPortId), "lp-5");
  ASSERT_THAT(road.restored, SizeIs(3));
  EXPECT_EQ(road.restored[0].state, "ACTIVE");
  EXPECT_EQ(road.restored[0].gcf_path, Vm("vm1"));
  EXPECT_EQ(road.restored[1].state, "FAILED");
  EXPECT_THAT(road.restored[1].error, HasSubstr("Could not find port"));
  EXPECT_EQ(road.restored[2].state, "SECURED");
}

TEST_F(VifDetachTest, PortsOfAUserAreMadeBeforeTheirVifs) {
  PrecreatedPorts::Map map;
  for (const char* const vif : {"vm-uuid:4000", "vm-uuid:4001"}) {
    auto request = std::make_shared<VifRequest>(Request(VifRequest::kAttachToVifUuid, vif));
    request->gcf_path.clear();
    request->spec = std::make_shared<PortConfigSpec>(Description(std::string("lp-") + vif));
    map[vif] = request;
  }
  map["vm-uuid:4001"]->spec->zone_id = "z9";
  lum.Script("getGcfPathOfVm(vm-uuid)", {"ok|" + Vm("vm1"), "no more"});
  EXPECT_THAT(PrecreatedPortMaker(context).CreatePorts(map).error(),
              testing::StartsWith("Failed to create DV port lp-vm-uuid:4001 with VIF vm-uuid:4001. "));
  EXPECT_TRUE(map["vm-uuid:4000"]->precreated);
  EXPECT_FALSE(map["vm-uuid:4001"]->precreated);
  EXPECT_EQ(Property(kOverlay, "lp-vm-uuid:4000", port_props::kPersistPath),
            PortFile("vm1", kOverlay, "lp-vm-uuid:4000"));
  EXPECT_THAT(lum.commands, ElementsAre("getGcfPathOfVm(vm-uuid)"));
}

}  // namespace
}  // namespace zem::zema
