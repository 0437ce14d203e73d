#include <cerrno>
#include <cstring>
#include <filesystem>

#include "app/zema/hostlib/config_ops_manager.h"
#include "app/zema/hostlib/endpoint_library.h"
#include "app/zema/hostlib/port_props.h"
#include "app/zema/hostlib/switch_health_publisher.h"
#include "app/zema/hostlib/team_records.h"
#include "app/zema/hostswitch/router_ports.h"
#include "app/zema/state/health_record.h"
#include "tests/app/zema/ports/switch_host_test.h"

namespace zem::zema {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
namespace fs = std::filesystem;

class SwitchWideTest : public SwitchHostTest {
 protected:
  void SetUp() override {
    std::string reason;
    ASSERT_TRUE(endpoints.Open(&reason)) << reason;
    ASSERT_TRUE(routers.Open(&reason)) << reason;
  }
  void TearDown() override {
    endpoints.Close();
    routers.Close();
  }
  void WriteEndpoint(const std::string& device, int id, const std::string& health = "good") {
    dir.Write("sim/switch/knlnics/" + device + ".json",
              R"({"device":")" + device + R"(","switch":"ks-1","endpointId":)" + std::to_string(id) +
                  R"(,"admin":"up","health":")" + health + "\"}");
  }
  std::string Router(const std::string& dvs) const { return dir.Read("sim/switch/vdr/" + dvs + ".json"); }

  std::string error;
  ConfigOpsManager switches{library};
  EndpointLibrary endpoints{BuiltLibrary("libvdl2kln.so")};
  RouterLibrary routers{BuiltLibrary("libvdrkln.so")};
};

TEST_F(SwitchWideTest, TeamingComesBackAsItWasPut) {
  const SwitchTeaming teaming{"", 2, {"u1", "u2"}, {"u3"}, 1};
  EXPECT_TRUE(switches.ConfigureTeaming(kOverlay, teaming));
  uint32_t type = 0;
  std::vector<std::string> uplinks;
  EXPECT_TRUE(switches.GetTeaming(kOverlay, &type, &uplinks));
  EXPECT_EQ(type, 2U);
  EXPECT_THAT(uplinks, ElementsAre("u1", "u2", "u3"));
  EXPECT_EQ(ReadTeamPolicy(*BuildTeamPolicy(teaming)), teaming);
  EXPECT_TRUE(switches.ClearTeaming(kOverlay));
  EXPECT_TRUE(switches.ClearTeaming(kOverlay));
  EXPECT_TRUE(switches.GetTeaming(kOverlay, &type, &uplinks));
  EXPECT_THAT(uplinks, IsEmpty());

  EXPECT_FALSE(switches.ConfigureTeaming("ks-1", teaming)) << "a name is no id";
  EXPECT_EQ(switches.ConfigureTeaming(kOverlay, {"", 0, {std::string(84, 'u')}, {}, 0}).error(),
            "Failed to allocate VSTeamPolicy structure");
}

TEST_F(SwitchWideTest, NoNamedTeamingsTakeTheTableAway) {
  EXPECT_TRUE(switches.ConfigureNamedTeaming(kOverlay, {{"a", 1, {"u1"}, {}, 0}, {"b", 2, {}, {"u2"}, 0}}));
  const auto table = state->SwitchProperty(kOverlay, "global", port_props::kNamedTeaming);
  ASSERT_TRUE(table);
  LSTeamTable header;
  std::memcpy(&header, table->data(), sizeof(header));
  EXPECT_EQ(header.size, table->size());
  EXPECT_EQ(header.count, 2U);
  EXPECT_TRUE(switches.ConfigureNamedTeaming(kOverlay, {}));
  EXPECT_FALSE(state->SwitchProperty(kOverlay, "global", port_props::kNamedTeaming));
}

// Lengths in a record come from elsewhere; none may lead behind its end.
TEST_F(SwitchWideTest, RecordsOfAnotherLengthAreRefused) {
  LacpTable table{sizeof(table) + 2 * sizeof(DVSName), 2};
  std::string record(reinterpret_cast<const char*>(&table), sizeof(table));
  record += std::string(sizeof(DVSName), '\0') + "lag" + std::string(sizeof(DVSName) - 3, '\0');
  std::vector<std::string> names;
  EXPECT_TRUE(switches.GetLacpNames(kOverlay, &names));
  ASSERT_TRUE(state->SetSwitchProperty(kOverlay, "global", port_props::kLacp, record));
  EXPECT_TRUE(switches.GetLacpNames(kOverlay, &names));
  EXPECT_THAT(names, ElementsAre("", "lag"));

  table.count = 0x80000001;  // times the size of a name it would be small again in 32 bits
  std::string wrong = record;
  std::memcpy(wrong.data(), &table, sizeof(table));
  for (const std::string& bytes : {wrong, record.substr(0, record.size() - 1), record.substr(0, 3),
                                   record.substr(0, 8) + std::string(2 * sizeof(DVSName), 'x')}) {
    ASSERT_TRUE(state->SetSwitchProperty(kOverlay, "global", port_props::kLacp, bytes));
    EXPECT_THAT(switches.GetLacpNames(kOverlay, &names).error(), HasSubstr("invalid size.")) << bytes.size();
  }
}

TEST_F(SwitchWideTest, HealthIsOnTheSwitchesAndAFailureIsTold) {
  SwitchHealthPublisher publisher(switches);
  HealthRecord health(publisher, true);
  health.setDvsNameVdrMacs({{kOverlay, {}}, {kVlanSwitch, {}}});
  const std::string status = "com.orlane.common.opaqueDvs.status.component.zema";
  health.mpaConnected();
  health.setZemaLumReady();
  EXPECT_EQ(state->SwitchProperty(kOverlay, "host", status), "up");
  // "down", told twice, and "up": each switch is written to twice.
  EXPECT_THAT(state->journal().Calls("DVSKNL_HostPropSet"), SizeIs(4));
  EXPECT_THAT(state->journal().Calls("DVSKNL_HostPropClear"), IsEmpty()) << "there was nothing to clear";
  Fault("DVSKNL_HostPropSet count=1 ret=0xbad0001");
  health.setZemaStatusDown();
  EXPECT_THAT(log.Texts(), Contains(HasSubstr("UpdateZemaHealth for DVS[" + std::string(kOverlay) +
                                              "] failed: 0xbad0001 (failure)")));
  EXPECT_EQ(state->SwitchProperty(kVlanSwitch, "host", status), "down");
  publisher.SetSecurityOnly(true);
  health.resetZemaHealth();
  const auto overlay =
      state->SwitchProperty(kOverlay, "host", "com.orlane.common.host.volatile.overlay.status");
  ASSERT_TRUE(overlay);
  EXPECT_EQ(overlay->substr(4, 9), "zema down");
}

TEST_F(SwitchWideTest, EndpointCallsTellTheReasonOfTheLibrary) {
  WriteEndpoint("knl10", 7);
  WriteEndpoint("knl11", 8, "failed");
  EXPECT_EQ(endpoints.EndpointId("ks-1", "knl10"), 7U);
  EXPECT_EQ(endpoints.EndpointId("ks-1", "knl12"), std::nullopt);
  EXPECT_EQ(endpoints.EndpointId("ks-9", "knl10"), std::nullopt);

  EXPECT_EQ(endpoints.SetKnlnicState("ks-9", "knl10", 1).error, ENOENT);
  EXPECT_EQ(endpoints.SetKnlnicState("ks-1", "knl99", 1).error, ENAMETOOLONG);
  EXPECT_EQ(endpoints.SetKnlnicState("ks-1", "knl10", -1).error, EINVAL);
  EXPECT_EQ(endpoints.SetKnlnicState("ks-1", "knl10", 0).error, ENOSYS) << "the last healthy one";
  EXPECT_EQ(endpoints.RecoverKnlnic("ks-1", "knl11").error, EINVAL) << "without high availability";
  EXPECT_EQ(endpoints.SetTEPHA(kOverlay, true), 0);
  EXPECT_EQ(endpoints.RecoverKnlnic("ks-1", "knl11").result, 0);
  EXPECT_EQ(endpoints.SetKnlnicState("ks-1", "knl10", 0).result, 0);

  EXPECT_EQ(endpoints.SetTEPHATimeout(kOverlay, 0), EFAULT);
  EXPECT_EQ(endpoints.SetTEPHAAutoRecover("ks-1", true), ENOENT) << "a name is no id";
  Fault("VDL2KNL_SetTEPHAAutoRecoverBackoff count=1 ret=1 errno=105");
  EXPECT_EQ(endpoints.SetTEPHAAutoRecoverBackoff(kOverlay, 5), ENOBUFS);
  EXPECT_EQ(endpoints.SetTEPHAAutoRecoverStartTime(kOverlay, 9), 0);
  EXPECT_THAT(dir.Read("sim/switch/switches/" + std::string(kOverlay) + "/tepha.json"),
              testing::AllOf(HasSubstr("\"startTime\":9"), testing::Not(HasSubstr("backoff"))));
  EndpointLibrary absent("libno-such.so");
  EXPECT_FALSE(absent.Open(&error));
  EXPECT_EQ(absent.SetTEPHATimeout(kOverlay, 5), kNoEndpointLibrary);
  EXPECT_STREQ(TepHaErrorText(kNoEndpointLibrary), "The endpoint library is not on this host.");
  EXPECT_EQ(absent.EndpointId("ks-1", "knl10"), std::nullopt);
}

TEST_F(SwitchWideTest, RouterIsConnectedChangedAndTakenOff) {
  RouterPorts ports_of_router(routers, [](Duration) { return true; });
  const std::vector<DvsConfigInfo> infos{{kOverlay, 3, {"u1", "u2"}}, {kVlanSwitch, 1, {}}};
  std::vector<std::string> errors;
  ports_of_router.ConnectVdrPorts(infos, {{kOverlay, "02:00:00:00:00:01"}}, true, &errors);
  EXPECT_EQ(Router(kOverlay), "");
  ports_of_router.ConnectVdrPorts(infos, {{kOverlay, "02:00:00:00:00:01"}, {kVlanSwitch, ""}}, false,
                                  &errors);
  EXPECT_THAT(errors, IsEmpty());
  EXPECT_THAT(Router(kOverlay),
              HasSubstr(R"("vmac":"020000000001","plumbed":true,"port":"vdrPort","teaming":3)"));
  EXPECT_EQ(Router(kVlanSwitch), "");

  std::vector<std::string> changing;
  const RouterPorts::Macs same{{kOverlay, "02:00:00:00:00:01"}, {kVlanSwitch, "02:00:00:00:00:09"}};
  EXPECT_TRUE(ports_of_router.GetDvsIdsChangingVdrMac(same, &changing, &error));
  EXPECT_THAT(changing, IsEmpty());
  EXPECT_TRUE(ports_of_router.GetDvsIdsChangingVdrMac({{kOverlay, "02:00:00:00:00:02"}}, &changing, &error));
  EXPECT_THAT(changing, ElementsAre(kOverlay));
  Fault("VDRKNL_GetVMAC count=1 ret=5");
  EXPECT_FALSE(ports_of_router.GetDvsIdsChangingVdrMac(same, &changing, &error));
  EXPECT_EQ(error, "VDRKNL_GetVMAC(" + std::string(kOverlay) + ") failed with code: 5");

  Fault("VDRKNL_PlumbVdrConnection count=1 ret=5");
  ports_of_router.ConnectVdrPorts(infos, same, false, &errors);
  EXPECT_THAT(errors,
              ElementsAre("Failed to create connection for vdrPort of dvs [" + std::string(kOverlay) + "]"));
  std::vector<std::string> failed;
  EXPECT_TRUE(ports_of_router.DisconnectVdrPorts(same, {{kVlanSwitch, ""}}, &failed));
  EXPECT_THAT(Router(kOverlay), HasSubstr(R"("plumbed":false)"));
  EXPECT_EQ(ports_of_router.UnPlumb(kOverlay), 0U) << "nothing is left to take off";
}

TEST_F(SwitchWideTest, UnloadIsWaitedForUpToItsLimit) {
  std::vector<Duration> pauses;
  bool running = true;
  RouterPorts ports_of_router(routers, [&](Duration pause) {
    pauses.push_back(pause);
    return running;
  });
  const auto busy_for = [&](int polls) {
    pauses.clear();
    dir.Write("sim/switch/vdr/x.json", "{\"unloadPollsLeft\":" + std::to_string(polls) + "}");
  };
  busy_for(2);
  EXPECT_TRUE(ports_of_router.WaitTillVdrUnloadDone(30));
  EXPECT_THAT(pauses, ElementsAre(std::chrono::seconds(2), std::chrono::seconds(2)));
  busy_for(100);
  EXPECT_EQ(ports_of_router.WaitTillVdrUnloadDone(30).error(),
            "WaitTillVdrUnloadDone timed out after 30 seconds");
  EXPECT_THAT(pauses, SizeIs(15));
  running = false;
  EXPECT_FALSE(ports_of_router.WaitTillVdrUnloadDone(30));
  Fault("VDRKNL_GetUnloadStatus count=1 ret=9");
  EXPECT_EQ(ports_of_router.WaitTillVdrUnloadDone(30).error(), "WaitTillVdrUnloadDone failed with code 9");
}

TEST_F(SwitchWideTest, LibraryThatIsMissingOrLacksAFunctionIsNotLoaded) {
  library.Close();  // the loader knows again a file that is open
  const sim::LibraryFolder folder(dir.Path("lib"));
  ASSERT_TRUE(folder.Install(&error)) << error;
  const std::string path = dir.Path("lib/libklnPublic.so");
  SwitchLibrary other(path);
  ASSERT_TRUE(other.Open(&error)) << error;
  other.Close();
  EXPECT_EQ(other.PortFind(kOverlay, "lp"), kSwitchNotLoaded);

  ASSERT_TRUE(folder.LackSymbol("libklnPublic.so", "DVSKNL_PortStateGet", &error)) << error;
  EXPECT_FALSE(other.Open(&error));
  EXPECT_FALSE(other.loaded());
  EXPECT_THAT(log.Texts(), Contains(HasSubstr("Function [DVSKNL_PortStateGet] is missing")));
  EXPECT_FALSE(folder.LackSymbol("libklnPublic.so", "DVSKNL_None", &error));

  ASSERT_TRUE(folder.Remove("libklnPublic.so", &error));
  EXPECT_FALSE(other.Open(&error));
  EXPECT_THAT(error, HasSubstr("libklnPublic.so"));
  ConfigOpsManager config(other);
  EXPECT_EQ(config.ClearTeaming(kOverlay).error(), "Config ops manager methods are not initialized.");
  EXPECT_EQ(config.SetHostProp(kOverlay, "a", "b"), kSwitchNotLoaded);
  ASSERT_TRUE(folder.Restore("libklnPublic.so", &error));
  EXPECT_TRUE(other.Open(&error)) << error;
}

}  // namespace
}  // namespace zem::zema
