#include "app/zema/lswitch/port_adapters.h"
#include "tests/app/zema/vif/vif_host_test.h"

namespace zem::zema {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kNone = "(none)";
constexpr const char* kStale = "com.orlane.port.extraConfig.vm.tagset";

class VifAttachTest : public VifHostTest {};

TEST_F(VifAttachTest, ManagerAnswersAndThePortIsMade) {
  road.script.push_back(Port("lp-1"));
  const VifRequest done = Done(Request(VifRequest::kAttachToVifUuid));
  EXPECT_EQ(done.error_text, "");
  EXPECT_EQ(done.result_text, "lp-1");
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), kVif);
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kOpaqueNetworkId), kLs);
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kBlock), "true");
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kPersistPath), PortFile("vm1", kOverlay, "lp-1"));
  ASSERT_THAT(road.asked, SizeIs(1));
  EXPECT_THAT(road.asked[0].rpc_id, testing::StartsWith("op-7-1-"));

  // Whoever asks without a VIF knows the port by the uuid that it is answered with.
  road.script.push_back(Port("lp-2", "z2"));
  EXPECT_EQ(Done(Request(VifRequest::kAttachToVifUuid, "")).result_text, "lp-2");
  EXPECT_EQ(VifOf(kVlanSwitch, "lp-2"), "lp-2");

  // An interface of the host itself is not blocked, and has no file.
  road.script.push_back(Port("lp-3"));
  VifRequest interface = Request(VifRequest::kAttach, "vif-3");
  interface.gcf_path = "knlnic";
  EXPECT_EQ(Done(interface).result_text, "");
  EXPECT_EQ(Property(kOverlay, "lp-3", port_props::kBlock), "false");
  EXPECT_EQ(Property(kOverlay, "lp-3", port_props::kPersistPath), kNone);

  // Nothing to make is no failure.
  road.script.push_back(Port(""));
  EXPECT_EQ(Done(Request(VifRequest::kAttach, "vif-4")).error_text, "");
  EXPECT_TRUE(log.Contains("empty portUuid [] or tzUuid [z1], skip dvport creation"));
}

TEST_F(VifAttachTest, RefusalsOfTheHostAndOfTheManager) {
  EXPECT_EQ(Done(Request(VifRequest::kAttach, "")).error_text, "required vif uuid is not set");
  health.setZemaLumNotReady();
  EXPECT_THAT(Done(Request(VifRequest::kAttach)).error_text, HasSubstr("ZEMA Lum not ready. Please restart"));
  health.setZemaLumReady();
  manager.SetMaintenanceMode(true);
  EXPECT_EQ(Done(Request(VifRequest::kAttach)).error_text, "Cannot operate in maintenance mode");
  manager.SetMaintenanceMode(false);
  EXPECT_THAT(road.asked, IsEmpty());

  Attach(kVif, "lp-1");
  ASSERT_TRUE(state->LosePorts(kOverlay));
  road.script.push_back(Refusal("no such switch"));
  EXPECT_EQ(Done(Request(VifRequest::kAttach)).error_text, "no such switch");
  EXPECT_TRUE(log.Contains("Not RPC Send error. Returning"));
  // A refusal is no reason to bring the port back.
  EXPECT_FALSE(log.Contains("Searching through gcf dir"));
  EXPECT_THAT(state->Ports(kOverlay), IsEmpty());

  Fault("DVSKNL_PortAdd count=1 ret=0xbad0001");
  road.script.push_back(Port("lp-9"));
  EXPECT_THAT(Done(Request(VifRequest::kAttach)).error_text, HasSubstr("Port add operation failed"));
}

// The port comes back from its file, and what the manager does not know is noted on it until it does.
TEST_F(VifAttachTest, WithoutManagerTheVmGetsItsPortBack) {
  Attach(kVif, "lp-1");
  const std::string file = PortFile("vm1", kOverlay, "lp-1");
  for (const bool reachable : {true, false}) {
    SCOPED_TRACE(reachable);
    ASSERT_TRUE(state->LosePorts(kOverlay));
    road.reachable = reachable;
    const VifRequest done = Done(Request(VifRequest::kAttachToVifUuid));
    EXPECT_EQ(done.error_text, "");
    EXPECT_EQ(done.result_text, kVif);
    EXPECT_EQ(VifOf(kOverlay, "lp-1"), kVif);
    EXPECT_EQ(PendingOf(kOverlay, "lp-1"), "attach_port");
  }
  EXPECT_EQ(
      log.Count("Suceeded in restoring dvport [lp-1] for VIF [vif-1] and returning success with  VIF in the "
                "result"),
      2u);
  ASSERT_TRUE(state->LosePorts(kOverlay));
  EXPECT_EQ(Done(Request(VifRequest::kAttach)).result_text, "");
  EXPECT_TRUE(log.Contains("returning success with NO VIF in the result"));
  road.reachable = true;
  Attach(kVif, "lp-1");
  EXPECT_EQ(PendingOf(kOverlay, "lp-1"), kNone);

  const VifRequest unknown = Done(Request(VifRequest::kAttach, "vif-9", kLs, "vm9"));
  EXPECT_EQ(unknown.error_text, ZemManager::kTimedOut);
  EXPECT_EQ(Done(Request(VifRequest::kAttachToVifUuid, "")).error_text, ZemManager::kTimedOut);
}

TEST_F(VifAttachTest, MovedVifLeavesItsPortBefore) {
  Attach(kVif, "lp-1");
  road.script.push_back(Moved(Port("lp-2", "z2", "ls-2"), "lp-1", "z1", kLs));
  EXPECT_EQ(Done(Request(VifRequest::kAttach, kVif, "ls-2")).error_text, "");
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), kNone);
  EXPECT_EQ(VifOf(kVlanSwitch, "lp-2"), kVif);

  // A manager that does not know of the port before is no reason to keep it.
  road.script.push_back(Port("lp-3"));
  EXPECT_EQ(Done(Request(VifRequest::kAttach)).error_text, "");
  EXPECT_EQ(VifOf(kVlanSwitch, "lp-2"), kNone);
  EXPECT_EQ(VifOf(kOverlay, "lp-3"), kVif);
}

TEST_F(VifAttachTest, PortThatCannotBeLeftIsTakenBack) {
  Attach(kVif, "lp-1");
  Fault("DVSKNL_PortDataClear port=lp-1 count=3 ret=0xbad0001");
  road.script.push_back(Moved(Port("lp-2", "z2", "ls-2"), "lp-1", "z1", kLs));
  road.script.push_back(Port("lp-1"));
  const VifRequest done = Done(Request(VifRequest::kAttach, kVif, "ls-2"));
  EXPECT_THAT(done.error_text, HasSubstr("Failed to clear property"));
  ASSERT_THAT(road.asked, SizeIs(2));
  EXPECT_EQ(road.asked[1].switch_id, kLs);
  EXPECT_TRUE(
      log.Contains("errorCode=\"MPA42068\"] [HandlePriorAttachedPort] clearVif(lpid=lp-1, lsid=ls-1, "));
  EXPECT_TRUE(log.Contains("rollback vif [vif-1] to prior attached dvport [lp-1]"));
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), kVif);
  EXPECT_THAT(state->Ports(kVlanSwitch), IsEmpty());

  // The manager has never known of the port before, so there is nothing to go back to.
  road.asked.clear();
  Fault("DVSKNL_PortDataClear port=lp-1 count=3 ret=0xbad0001");
  road.script.push_back(Port("lp-2", "z2", "ls-2"));
  EXPECT_THAT(Done(Request(VifRequest::kAttach, kVif, "ls-2")).error_text,
              HasSubstr("Failed to clear property"));
  EXPECT_THAT(road.asked, SizeIs(1));
  EXPECT_EQ(VifOf(kOverlay, "lp-1"), kVif);
  EXPECT_THAT(state->Ports(kVlanSwitch), IsEmpty()) << "the VIF would be on two ports";
}

TEST_F(VifAttachTest, SecurityOnlyPortIsTiedAndNotMade) {
  Create(Description("dvp-5", "z2"), "vif-stale", Vm("vm5"));
  state->journal().Clear();
  Fault("DVSKNL_PortDataSet count=2 ret=0xbad0001");
  VifRequest request = Request(VifRequest::kAttach, kVif, "dvportgroup-7");
  request.security_switch_id = kVlanSwitch;
  request.port_id = "dvp-5";
  road.script.push_back(Port("lp-5", "z2"));
  const TimePoint begin = clock.Now();
  EXPECT_EQ(Done(request).error_text, "");
  EXPECT_EQ(clock.Now() - begin, std::chrono::seconds(2));
  EXPECT_EQ(road.asked[0].port_id, "dvp-5");
  EXPECT_TRUE(log.Contains("dvport [dvp-5] has stale vifId [vif-stale], clearing all existing extra config"));
  const std::pair<const char*, const char*> wanted[] = {
      {port_props::kSecurityEnable, "true"},
      {port_props::kExternalId, kVif},
      {port_props::kOpaqueNetworkId, "dvportgroup-7"},
      {port_props::kLogicalPortId, "lp-5"},
  };
  for (const auto& [key, value] : wanted) EXPECT_EQ(Property(kVlanSwitch, "dvp-5", key), value) << key;
  EXPECT_THAT(state->Ports(kVlanSwitch), ElementsAre("dvp-5"));
}

// The resync's script knows a port by its key alone, and where the vNIC's switch is not told, the port tells
// it.
TEST_F(VifAttachTest, SecurityOnlyPortIsResynced) {
  constexpr const char* kGroup = "dvportgroup-7";
  Create(Description("dvp-5", "z2"), "", "knlnic");
  VifRequest request = Request(VifRequest::kAttach, kVif, kGroup);
  request.security_switch_id = kVlanSwitch;
  request.port_id = "dvp-5";
  road.reachable = false;
  EXPECT_EQ(Done(request).error_text, ZemManager::kSendFailed);
  road.reachable = true;
  EXPECT_EQ(PendingOf(kVlanSwitch, "dvp-5"), "attach_port");

  VifRequest resync = Request(VifRequest::kSyncAttach, kVif, kGroup);
  for (const char* const key : {"dvp-5", ""}) {
    resync.port_id = key;
    road.script.push_back(Port("lp-5", "z2"));
    EXPECT_EQ(Done(resync).error_text, "");
    EXPECT_EQ(PendingOf(kVlanSwitch, "dvp-5"), kNone);
    EXPECT_EQ(Property(kVlanSwitch, "dvp-5", port_props::kSecurityEnable), "true");
  }
  road.reachable = false;
  request.op_code = VifRequest::kDetach;
  Done(request);
  EXPECT_EQ(PendingOf(kVlanSwitch, "dvp-5"), "detach_port");
  road.reachable = true;
  resync.op_code = VifRequest::kSyncDetach;
  resync.port_id = "dvp-5";
  road.script.push_back(PortAttached());
  EXPECT_EQ(Done(resync).error_text, "");
  EXPECT_EQ(PendingOf(kVlanSwitch, "dvp-5"), kNone);

  // Two switches have a port of the key, and neither holds the VIF.
  Create(Description("dvp-5"), "", "knlnic");
  resync.op_code = VifRequest::kSyncAttach;
  road.script.push_back(Port("lp-5", "z2"));
  EXPECT_THAT(Done(resync).error_text, HasSubstr("Unable to find dvs and port ids for security"));
}

TEST_F(VifAttachTest, ReadyPortsAreNotWaitedFor) {
  VifRequest request = Request(VifRequest::kAttachToVifUuid);
  request.spec = std::make_shared<PortConfigSpec>(Description("lp-1"));
  request.spec->extra_configs[kStale] = "blue";
  EXPECT_EQ(Done(request).result_text, "lp-1");
  EXPECT_EQ(Property(kOverlay, "lp-1", kStale), "blue");

  request.precreated = true;
  request.spec->port_id = "lp-2";
  EXPECT_EQ(Done(request).result_text, "lp-2");
  EXPECT_THAT(state->Ports(kOverlay), ElementsAre("lp-1"));
  road.reachable = false;
  EXPECT_EQ(Done(request).error_text, ZemManager::kSendFailed);
}

// The manager waits for what the host has written on the port; a port that came with the VM has it already.
TEST_F(VifAttachTest, SiteConfigurationIsFetched) {
  PortAttached pending = Port("lp-1");
  pending.init_state = "PENDING_CONF";
  road.script.push_back(pending);
  EXPECT_EQ(Done(Request(VifRequest::kAttach)).error_text, "");
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kAttachmentState), "pending_conf");
  auto waiting = ports.site_configs().LookupVifRequest(kVif);
  ASSERT_NE(waiting, nullptr);

  ASSERT_TRUE(ports.properties().SetPortExtraConfig(kOverlay, "lp-1", kStale, "blue"));
  // What the first try came to is not in the second.
  PortVifStates states(ports.site_configs(), [this](std::shared_ptr<VifRequest> queued) {
    if (queued->error_text.empty()) Do(*queued);
  });
  road.reachable = false;
  ASSERT_TRUE(states.ProcessVif(kVif));
  EXPECT_TRUE(log.Contains("MP_UpdateVnicAttachment() call failed: Failed to send VIF RPC request"));
  road.reachable = true;
  ASSERT_TRUE(states.ProcessVif(kVif));
  ASSERT_THAT(road.updates, SizeIs(2));
  EXPECT_THAT(road.updates[1].site_configs, ElementsAre(testing::Pair(kStale, "blue")));
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kAttachmentState), kNone);
  EXPECT_EQ(ports.site_configs().LookupVifRequest(kVif), nullptr);
  // It does not come back with the port's file.
  ASSERT_TRUE(state->LosePorts(kOverlay));
  PortLocation at;
  std::string path = Vm("vm1");
  ASSERT_TRUE(ports.search().FindPortByVifUuid(kVif, kLs, &path, &at));
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kAttachmentState), kNone);

  // A VIF that has no name but its port's is known by that.
  pending.port_id = "lp-2";
  road.script.push_back(pending);
  EXPECT_EQ(Done(Request(VifRequest::kAttachToVifUuid, "")).result_text, "lp-2");
  EXPECT_NE(ports.site_configs().LookupVifRequest("lp-2"), nullptr);
  EXPECT_EQ(ports.site_configs().LookupVifRequest(""), nullptr);
  ASSERT_EQ(library.PortRemove(kOverlay, "lp-2"), 0U);

  // From another host, in the VM's directory.
  Create(Description("lp-5"), "vif-5", Vm("vm5"));
  ASSERT_TRUE(ports.properties().SetPortExtraConfig(kOverlay, "lp-5", kStale, "red"));
  ASSERT_EQ(ports.files().SavePortDataFile(PortFile("vm5", kOverlay, "lp-5"), kOverlay, "lp-5"), 0);
  ASSERT_TRUE(state->LosePorts(kOverlay));
  PortAttached moved = Moved(Port("lp-6"), "lp-5", "z8", kLs);
  moved.init_state = "PENDING_CONF";
  road.script.push_back(moved);
  // The switch of the old zone is not here, and no port here holds the VIF.
  EXPECT_EQ(Done(Request(VifRequest::kAttach, "vif-5", kLs, "vm5")).error_text, "");
  ASSERT_THAT(road.updates, SizeIs(3));
  EXPECT_EQ(road.updates[2].port_id, "lp-6");
  EXPECT_THAT(road.updates[2].site_configs, ElementsAre(testing::Pair(kStale, "red")));
  EXPECT_THAT(state->Ports(kOverlay), ElementsAre("lp-6"));

  // On this host itself the port before stays: the VM is still connected with it.
  moved = Moved(Port("lp-7"), "lp-6", "z1", kLs);
  moved.init_state = "PENDING_CONF";
  road.script.push_back(moved);
  EXPECT_EQ(Done(Request(VifRequest::kAttach, "vif-5", kLs, "vm5")).error_text, "");
  EXPECT_THAT(state->Ports(kOverlay), ElementsAre("lp-6", "lp-7"));
  Attach("vif-5", "lp-6", "z1", kLs, "vm5");

  // It comes back to the port that it once left here, with what was written on it elsewhere.
  ASSERT_TRUE(ports.properties().SetPortExtraConfig(kOverlay, "lp-6", kStale, "green"));
  ASSERT_EQ(ports.files().SavePortDataFile(PortFile("vm5", kOverlay, "lp-6"), kOverlay, "lp-6"), 0);
  ASSERT_EQ(library.PortDataClear(kOverlay, "lp-6", port_props::kExternalId), 0U);
  ASSERT_EQ(library.PortDataClear(kOverlay, "lp-6", kStale), 0U);
  moved = Moved(Port("lp-6"), "lp-6", "z8", kLs);
  moved.init_state = "PENDING_CONF";
  road.script.push_back(moved);
  EXPECT_EQ(Done(Request(VifRequest::kAttach, "vif-5", kLs, "vm5")).error_text, "");
  ASSERT_THAT(road.updates, SizeIs(4));
  EXPECT_THAT(road.updates[3].site_configs, ElementsAre(testing::Pair(kStale, "green")));
  EXPECT_EQ(VifOf(kOverlay, "lp-6"), "vif-5");
}

}  // namespace
}  // namespace zem::zema
