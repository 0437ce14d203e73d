#include "app/ctxteng/firewall/dfw_connector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <thread>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/firewall/fw_lib.h"
#include "platform/core/virtual_clock.h"
#include "sim/firewall/tree/firewall_tree.h"
#include "sim/switch/sim_state.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace Ctxt::DfwUtil {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using zem::sim::SwitchState;
namespace firewall = zem::sim::firewall;

constexpr const char* kVm = "50 29 c1 b8 0a 53 4c 0e-9b 0c 6f 1d 3a 3f 7a 01";
constexpr const char* kAlice = "S-1-5-21-1-1-1-1001";

// The host's library, and its device without a kernel.
class HostFirewall final : public FwLibImpl {
 public:
  explicit HostFirewall(std::atomic<int>& open) : FwLibImpl(ZEM_FIREWALL_LIBRARY), open_(open) {}
  int OpenDevice(const char*) override {
    ++open_;
    return 1000;
  }
  void CloseDevice(int) override { --open_; }
  int DeviceIoctl(int descriptor, unsigned long request, void* argument) override {
    const int result = firewall::ServeRequest(request, static_cast<FW_DeviceHeader*>(argument));
    if (result < 0) CloseDevice(descriptor);
    return result < 0 ? -1 : 0;
  }

 private:
  std::atomic<int>& open_;
};

class DfwConnectorTest : public testing::Test {
 protected:
  DfwConnectorTest() {
    EXPECT_TRUE(firewall::Prepare());
    for (const uint32_t vnic : {4001U, 4000U})
      EXPECT_TRUE(firewall::PutFilter({.vm_uuid = kVm, .vnic = vnic}));
    alice.user_dfw_key = kAlice;
    alice.user_hash = 77;
    alice.nc_vc_uuid = kVm;
    alice.group_keys = {"S-1-5-32-545", "S-1-1-0"};
    alice.src_ip = "10.0.0.1";
    alice.dest_ip = "10.0.0.2";
    alice.src_port = 40000;
    alice.dest_port = 443;
    alice.protocol = 6;
    alice.process_dfw_key = 0xFEDCBA9876543210;
  }
  ~DfwConnectorTest() override {
    connector.Stop();
    EXPECT_EQ(open, 0) << "descriptors of the device";
    EXPECT_THAT(state.journal().Live(), IsEmpty());
    EXPECT_THAT(state.journal().Violations(), IsEmpty());
  }

  void Fail(const std::string& rule) {
    std::string error;
    ASSERT_TRUE(state.AddFault(rule, &error)) << error;
  }
  void NextMinute() { clock.RunFor(std::chrono::seconds(60)); }

  struct Root {
    Root() { ::setenv("ZEM_SIM_ROOT", folder.Path().c_str(), 1); }
    const zem::test::TempDir folder;
  };
  const Root root;
  SwitchState state;
  zem::VirtualClock clock;
  zem::test::LogCapture log{zem::kLogDebug};
  std::atomic<int> open{0};
  DfwConnector connector{[this] { return std::make_unique<HostFirewall>(open); }};
  DfwUserProcessInfo alice;
};

TEST_F(DfwConnectorTest, ConnectionIsAttachedOnEveryVnicAndMembershipOnTheLowest) {
  connector.Initialize();
  connector.Initialize();
  NextMinute();
  EXPECT_EQ(connector.AddUser(alice), DfwConnector::kWantsMembership);
  EXPECT_THAT(firewall::Connections(), IsEmpty());
  EXPECT_EQ(connector.AddUserGroupMembership(alice), DfwConnector::kDone);
  const auto memberships = firewall::Memberships();
  ASSERT_EQ(memberships.size(), 1U);
  EXPECT_EQ(memberships[0].user_hash, 77U);
  EXPECT_EQ(memberships[0].vnic, 4000U);
  EXPECT_THAT(memberships[0].groups, ElementsAre("S-1-5-32-545", "S-1-1-0"));

  EXPECT_EQ(connector.AddUser(alice), DfwConnector::kDone);
  alice.ip_version = 1;
  alice.src_ip = "fe80::1";
  alice.dest_ip = "fe80::2";
  EXPECT_EQ(connector.AddUserAndProcess(alice), DfwConnector::kDone);
  std::vector<std::string> keys;
  for (const auto& c : firewall::Connections()) {
    EXPECT_EQ(c.user, kAlice);
    keys.push_back(std::to_string(c.vnic) + " " + c.key + " " + std::to_string(c.process));
  }
  EXPECT_THAT(keys, ElementsAre("4000 6 10.0.0.1:40000 10.0.0.2:443 0",
                                "4000 6 fe80::1:40000 fe80::2:443 18364758544493064720",
                                "4001 6 10.0.0.1:40000 10.0.0.2:443 0",
                                "4001 6 fe80::1:40000 fe80::2:443 18364758544493064720"));
  EXPECT_EQ(state.journal().Calls("FW_Initialize").size(), 1U);
}

// The walk ends at the first failure; what was created is released in any case.
TEST_F(DfwConnectorTest, EachRefusalEndsTheWalkWithItsOwnLine) {
  connector.Initialize();
  NextMinute();
  ASSERT_EQ(connector.AddUserGroupMembership(alice), DfwConnector::kDone);
  struct Case {
    const char* rule;
    int result;
    const char* line;
  };
  const Case cases[] = {
      {"FW_CreateConnectionAttr ret=12 count=1", DfwConnector::kFailed,
       "errorCode=\"CTX1002\"] DfwConnector: Failed to CreateConnectionAttr for filter 50 29 "},
      {"FW_AddAttrProcessHash ret=12 count=1", DfwConnector::kFailed, "errorCode=\"MPACTX1005\""},
      {"FW_AddAttrUserSID ret=12 count=1", DfwConnector::kFailed, "errorCode=\"CTX1006\""},
      {"FW_SetConnectionAttr ret=70 skip=1 count=1", DfwConnector::kWantsMembership, "errorCode=\"CTX1007\""},
      {"FW_SetConnectionAttr ret=4 count=1", DfwConnector::kFailed, "status 4"},
  };
  for (const Case& c : cases) {
    log.Clear();
    Fail(c.rule);
    EXPECT_EQ(connector.AddUserAndProcess(alice), c.result) << c.rule;
    EXPECT_TRUE(log.Contains(c.line)) << c.rule;
    EXPECT_THAT(state.Faults(), IsEmpty()) << c.rule;
  }
  // A failed release changes nothing for the caller.
  log.Clear();
  Fail("FW_AddAttrUid2MultiSid ret=3 count=1");
  EXPECT_EQ(connector.AddUserGroupMembership(alice), DfwConnector::kFailed);
  EXPECT_EQ(log.Count("errorCode=\"CTX1003\""), 1U);
  DfwUserProcessInfo stranger = alice;
  stranger.nc_vc_uuid = "another";
  EXPECT_EQ(connector.AddUser(stranger), DfwConnector::kFailed);
  EXPECT_TRUE(log.Contains("DfwConnector: No filters found for VM another, cannot add 5-tuple information"));
  EXPECT_EQ(connector.AddUserGroupMembership(stranger), DfwConnector::kFailed);
  EXPECT_EQ(log.Count("errorCode=\"CTX1001\""), 1U);
}

TEST_F(DfwConnectorTest, CountersMoveTheFlagsAtTheScanOfTheMinuteAlone) {
  const auto set = [](uint64_t bypassed, uint64_t dropped) {
    ASSERT_TRUE(
        firewall::PutFilter({.vm_uuid = kVm, .vnic = 4000, .bypassed = bypassed, .dropped = dropped}));
  };
  // A filter without a VIF counts for nothing, and neither does another agent's.
  ASSERT_TRUE(firewall::PutFilter({.vm_uuid = kVm, .vnic = 1, .bypassed = 1000, .has_vif = false}));
  ASSERT_TRUE(firewall::PutFilter({.name = "orlane-x", .vm_uuid = kVm, .vnic = 2, .bypassed = 1000}));
  set(5, 0);
  EXPECT_FALSE(connector.IsBypassChanged());
  connector.Initialize();
  clock.RunFor(std::chrono::seconds(1));
  EXPECT_TRUE(connector.IsBypassChanged()) << "the first sum differs from none";
  EXPECT_FALSE(connector.IsDropChanged());
  NextMinute();
  EXPECT_FALSE(connector.IsBypassChanged());
  set(5, 1);
  EXPECT_EQ(connector.GetFilters("orlane-sfw"), DfwConnector::kDone);
  EXPECT_FALSE(connector.IsDropChanged());
  NextMinute();
  EXPECT_EQ(connector.GetFilters("orlane-sfw"), DfwConnector::kDone);
  EXPECT_TRUE(connector.IsDropChanged()) << "a scan for a guest hides nothing";
  EXPECT_FALSE(connector.IsBypassChanged());
  NextMinute();
  EXPECT_FALSE(connector.IsDropChanged());
  EXPECT_TRUE(log.Contains("vnic 1 does not have a vifId"));
  EXPECT_TRUE(log.Contains("DfwConnector: Filter name does not match orlane-x"));
}

TEST_F(DfwConnectorTest, FailedScanLeavesNoFiltersUntilTheNext) {
  connector.Initialize();
  NextMinute();
  ASSERT_EQ(connector.AddUserGroupMembership(alice), DfwConnector::kDone);
  struct Case {
    const char* rule;
    const char* line;
  };
  const Case cases[] = {
      {"filter-count ret=9 count=1", "DfwConnector: Ioctl failed to get filter count, status: 9"},
      {"filter-count errno=14 count=1", "errorCode=\"CTX1009\""},
      {"filters ret=9 count=1", "DfwConnector: Ioctl failed to get filters: 9"},
      {"filters errno=22 count=1", "errorCode=\"CTX1008\""}};
  for (const Case& c : cases) {
    log.Clear();
    Fail(c.rule);
    EXPECT_EQ(connector.GetFilters("orlane-sfw"), DfwConnector::kFailed) << c.rule;
    EXPECT_TRUE(log.Contains(c.line)) << c.rule;
    EXPECT_EQ(open, 0) << c.rule;
    EXPECT_EQ(connector.AddUser(alice), DfwConnector::kFailed) << c.rule;
    NextMinute();
    EXPECT_EQ(connector.AddUser(alice), DfwConnector::kDone) << c.rule;
  }
}

TEST_F(DfwConnectorTest, DeviceThatTellsNonsenseIsSurvived) {
  connector.Initialize();
  NextMinute();
  ASSERT_EQ(connector.AddUserGroupMembership(alice), DfwConnector::kDone);
  firewall::SetDeviceFault(firewall::DeviceFault::kNullBuffer);
  EXPECT_EQ(connector.GetFilters("orlane-sfw"), DfwConnector::kFailed);
  EXPECT_EQ(log.Count("errorCode=\"CTX1010\""), 1U);
  for (const auto fault : {firewall::DeviceFault::kMore, firewall::DeviceFault::kUnterminated}) {
    firewall::SetDeviceFault(fault);
    EXPECT_EQ(connector.GetFilters("orlane-sfw"), DfwConnector::kDone);
  }
  firewall::SetDeviceFault(firewall::DeviceFault::kFewer);
  EXPECT_EQ(connector.GetFilters("orlane-sfw"), DfwConnector::kDone);
  log.Clear();
  EXPECT_EQ(connector.AddUser(alice), DfwConnector::kDone);
  EXPECT_TRUE(log.Contains("count = 1")) << "the filters that are left";
}

// Guests that power on together share a scan, but none gets one that began before it came.
TEST_F(DfwConnectorTest, GuestsThatComeTogetherShareAScan) {
  connector.Initialize();
  NextMinute();
  state.journal().Clear();
  Fail("filter-count delay_ms=300 count=2");
  std::vector<zem::NativeThread> guests;
  std::atomic<int> good{0};
  for (int i = 0; i < 8; ++i) {
    guests.emplace_back([&] { good += connector.GetFilters("orlane-sfw"); });
  }
  for (zem::NativeThread& guest : guests) guest.Join();
  EXPECT_EQ(good, 8);
  EXPECT_LE(state.journal().Calls("filter-count").size(), 3U);
}

TEST_F(DfwConnectorTest, FirewallThatDoesNotInitializeIsTriedAgainByTheNextClient) {
  Fail("FW_Initialize ret=12 count=1");
  try {
    connector.Initialize();
    ADD_FAILURE() << "no exception";
  } catch (const CtxtFwInitError& error) {
    EXPECT_THAT(error.what(), testing::HasSubstr("Failed to initialize firewall library, no memory"));
  }
  EXPECT_TRUE(log.Contains("errorCode=\"CTX1011\"] DfwConnector: Exception in FWLibrary initialization - "));
  EXPECT_EQ(connector.AddUser(alice), DfwConnector::kFailed);
  connector.Initialize();
  EXPECT_TRUE(log.Contains("DfwConnector: Firewall library successfully initialized"));
  connector.Stop();
  connector.Stop();
  EXPECT_EQ(log.Count("DfwConnector: FW GetFilters thread interrupted, exiting"), 1U);
}

TEST(FwLibTest, MissingLibraryAndDeviceAreRefusals) {
  const zem::test::LogCapture log;
  FwLibImpl library("libof-no-host.so");
  EXPECT_EQ(library.FW_ReleaseConnectionAttr(nullptr), static_cast<FW_Status>(FW_NOT_LOADED));
  EXPECT_STREQ(library.FW_StatusToString(FW_NOT_LOADED), "library not loaded");
  EXPECT_EQ(library.OpenDevice("/dev/of-no-host"), -1);
  EXPECT_EQ(log.Count("errorCode=\"CTX1151\""), 1U);
  EXPECT_EQ(library.DeviceIoctl(-1, 20, nullptr), -1);
  library.CloseDevice(-1);
  EXPECT_EQ(log.Count("FwLibImpl: Invalid devId -1"), 4U);
  const int file = library.OpenDevice("/dev/null");
  EXPECT_EQ(library.DeviceIoctl(file, 20, nullptr), -1);
  EXPECT_EQ(log.Count("errorCode=\"CTX1154\""), 1U);
  library.CloseDevice(file);
  EXPECT_EQ(log.Count("errorCode=\"CTX1153\""), 1U) << "the failed request has closed it";
}

}  // namespace
}  // namespace Ctxt::DfwUtil
