#include <algorithm>
#include <atomic>
#include <random>

#include "app/zema/hostlib/port_props.h"
#include "app/zema/hostlib/port_walk.h"
#include "platform/core/random.h"
#include "platform/core/thread.h"
#include "tests/app/zema/ports/switch_host_test.h"

namespace zem::zema {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

class VifIndexTest : public SwitchHostTest {
 protected:
  static constexpr const char* kSwitches[] = {kOverlay, kVlanSwitch};
  static constexpr const char* kZones[] = {"z1", "z2"};

  // What is on the switches, by the walk over all ports alone.
  std::vector<std::pair<std::string, std::string>> Walked(const std::string& vif, const std::string& ls) {
    std::vector<std::pair<std::string, std::string>> found;
    PortWalk(library, {kOverlay, kVlanSwitch}).Visit([&](const std::string& dvs, const std::string& port) {
      if (Property(dvs, port, port_props::kExternalId) == vif &&
          (ls.empty() || Property(dvs, port, port_props::kOpaqueNetworkId) == ls)) {
        found.emplace_back(dvs, port);
      }
      return false;
    });
    return found;
  }

  size_t Lists() const { return state->journal().Calls("DVSKNL_SwitchPortList").size(); }
};

// Whatever was done to ports, by the agent or, told or seen by a new reading, by others: the index finds the
// port that the walk finds, and no port keeps a VIF that the walk would have taken off.
TEST_F(VifIndexTest, AnswersAsTheWalkOverAllPorts) {
  const uint64_t seed = RandomNumber();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  const auto pick = [&random](size_t count) { return static_cast<size_t>(random() % count); };
  size_t hits = 0;
  for (int step = 0; step < 600; ++step) {
    const size_t at = pick(2);
    const std::string dvs = kSwitches[at];
    const std::string port = "lp-" + std::to_string(pick(8));
    const std::string vif = "vif-" + std::to_string(pick(6));
    const std::string ls = pick(2) == 0 ? "ls-1" : "ls-2";
    const std::string vm = Vm("vm" + std::to_string(pick(3)));
    const auto on_switch = state->Ports(dvs);
    const bool there = std::find(on_switch.begin(), on_switch.end(), port) != on_switch.end();
    PortLocation found;
    std::string path;
    switch (pick(12)) {
      case 0:
      case 1:
      case 2: {
        PortConfigSpec description = Description(port, kZones[at]);
        description.switch_id = ls;
        // Files take long: each is synced.
        ASSERT_TRUE(ports.creation().CreatePort(description, vif, pick(3) == 0 ? vm : "knlnic", true));
        break;
      }
      case 3:
        ASSERT_TRUE(ports.changes().ClearVifFromPort(kZones[at], port, ls, vif, pick(2) == 0));
        break;
      case 4:
        ASSERT_TRUE(ports.changes().DeletePort(dvs, port, pick(2) == 0));
        break;
      case 5:
        if (there) {
          ASSERT_TRUE(ports.properties().ClearPortOpaqueData(dvs, port));
        }
        break;
      case 6:
        // A write whose outcome is not known: it may have been done.
        if (there) {
          Fault("DVSKNL_PortDataSet count=1 ret=0xbad0001");
          ASSERT_FALSE(ports.properties().SetPortExtraConfig(dvs, port, port_props::kExternalId, vif));
          if (pick(2) == 0) {
            ASSERT_TRUE(state->SetPortProperty(dvs, port, port_props::kExternalId, vif));
          }
        }
        break;
      case 7:
        ASSERT_TRUE(state->LosePorts(dvs));
        path = vm;
        static_cast<void>(ports.search().FindPortByVifUuid(vif, ls, &path, &found));
        break;
      case 8:
        // The host brings a port with its VIF, and says so.
        if (there) {
          ASSERT_TRUE(state->SetPortProperty(dvs, port, port_props::kExternalId, vif));
          ports.holders().DoubtVif(vif);
        }
        break;
      case 9:
        if (there) {
          ASSERT_TRUE(state->SetPortProperty(dvs, port, port_props::kExternalId, vif));
          ASSERT_TRUE(ports.holders().RefreshVifIndex());
        }
        break;
      case 10:
        path = vm;
        static_cast<void>(ports.search().FindPortToFetchVMTags(vif, ls, vm, kZones[at], &found));
        break;
      default:
        ports.zones().SetTzToDvsCache({{"z1", kOverlay, "KLN"},
                                       {"z2", kVlanSwitch, "NVS"},
                                       {"more-" + std::to_string(step), dvs, "KLN"}});
        break;
    }

    const std::string wanted = "vif-" + std::to_string(pick(6));
    // Not each time: a search that finds nothing reads all ports, and what the index did not know is known.
    if (pick(8) == 0) {
      const auto walked = Walked(wanted, ls);
      path.clear();
      ASSERT_EQ(ports.search().FindPortByVifUuid(wanted, ls, &path, &found).done(), !walked.empty())
          << "step " << step;
      if (!walked.empty()) {
        ++hits;
        ASSERT_EQ(std::make_pair(found.dvs, found.port), walked.front()) << "step " << step;
      }
    }
    if (pick(4) == 0) {
      ASSERT_TRUE(ports.changes().ClearVifFromPortOtherThan(port, wanted));
      for (const auto& [other_dvs, other] : Walked(wanted, "")) ASSERT_EQ(other, port) << "step " << step;
    }
    if (pick(16) == 0) {
      ASSERT_TRUE(ports.changes().FindAndClearExistingPortWithVifId(ls, wanted));
      ASSERT_THAT(Walked(wanted, ls), IsEmpty()) << "step " << step;
    }
  }
  EXPECT_GT(hits, 5U);
}

// The roads of every attach and detach: after the first reading nothing of them looks at other ports.
TEST_F(VifIndexTest, AttachAndDetachDoNotGoThroughPorts) {
  Create(Description("lp-1"), kVif, Vm("vm1"));
  ASSERT_TRUE(ports.changes().ClearVifFromPortOtherThan("lp-1", kVif));
  state->journal().Clear();
  Create(Description("lp-2"), "vif-2", Vm("vm1"));
  ASSERT_TRUE(ports.changes().ClearVifFromPortOtherThan("lp-2", "vif-2"));
  PortLocation found;
  std::string path = Vm("vm1");
  ASSERT_TRUE(ports.search().FindPortByVifUuid("vif-2", kLs, &path, &found));
  // The second half of a move: the VIF is on another network by now.
  ASSERT_TRUE(ports.changes().FindAndClearExistingPortWithVifId("ls-before", "vif-2"));
  ASSERT_TRUE(ports.changes().FindAndClearExistingPortWithVifId(kLs, "vif-2"));
  // It has been taken off already, by the manager's own request.
  path.clear();
  EXPECT_FALSE(ports.search().FindPortByVifUuid("vif-2", kLs, &path, &found));
  ASSERT_TRUE(ports.changes().FindAndClearExistingPortWithVifId(kLs, "vif-2"));
  EXPECT_EQ(Lists(), 0U);
  EXPECT_THAT(state->journal().Calls("lp-1"), IsEmpty());
  // The same zones once more change nothing; another switch does.
  ports.zones().SetTzToDvsCache({{"z1", kOverlay, "KLN"}, {"z2", kVlanSwitch, "NVS"}});
  ASSERT_TRUE(ports.changes().ClearVifFromPortOtherThan("lp-2", "vif-2"));
  EXPECT_EQ(Lists(), 0U);
  ports.zones().SetTzToDvsCache({{"z1", kOverlay, "KLN"}});
  ASSERT_TRUE(ports.changes().ClearVifFromPortOtherThan("lp-2", "vif-2"));
  EXPECT_EQ(Lists(), 1U);
}

// Ports that do not come by the agent's own writes: from a file of the VM, and by the host, which says so.
TEST_F(VifIndexTest, PortsThatComeWithTheirVifAreKnown) {
  Create(Description("lp-1"), kVif, Vm("vm1"));
  Create(Description("lp-2"), "vif-2", "knlnic");
  ASSERT_TRUE(state->LosePorts(kOverlay));
  ASSERT_TRUE(ports.holders().RefreshVifIndex());
  PortLocation found;
  std::string path = Vm("vm1");
  ASSERT_TRUE(ports.search().FindPortByVifUuid(kVif, kLs, &path, &found));
  state->journal().Clear();
  ASSERT_TRUE(ports.changes().ClearVifFromPortOtherThan("lp-9", kVif));
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kExternalId), "(none)");
  EXPECT_EQ(Lists(), 0U);
  for (const bool told : {false, true}) {
    ASSERT_TRUE(state->SetPortProperty(kOverlay, "lp-1", port_props::kExternalId, "vif-3"));
    if (told) ports.holders().DoubtVif("vif-3");
    ASSERT_TRUE(ports.changes().ClearVifFromPortOtherThan("lp-9", "vif-3"));
    EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kExternalId), told ? "(none)" : "vif-3");
  }
  // It may be looked for after it was announced and before it comes; once it has come and gone it is nowhere.
  ports.holders().DoubtVif("vif-4");
  bool came = false;
  for (const unsigned lists : {2U, 2U, 0U}) {
    state->journal().Clear();
    ASSERT_TRUE(ports.changes().ClearVifFromPort("", "", kLs, "vif-4", true));
    EXPECT_EQ(Lists(), lists);
    EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kExternalId), "(none)");
    if (!came) {
      ASSERT_TRUE(state->SetPortProperty(kOverlay, "lp-1", port_props::kExternalId, "vif-4"));
    }
    came = true;
  }
}

// A port that cannot be read may hold any VIF, so nothing is believed until all could be read.
TEST_F(VifIndexTest, ReadingThatFailedIsNotBelieved) {
  Create(Description("lp-1"), kVif, Vm("vm1"));
  ASSERT_TRUE(ports.holders().RefreshVifIndex());
  Fault("DVSKNL_PortDataGet port=lp-1 count=2 ret=0xbad0001");
  EXPECT_FALSE(ports.holders().RefreshVifIndex());
  ASSERT_TRUE(ports.changes().ClearVifFromPortOtherThan("lp-9", kVif));
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kExternalId), kVif);
  ASSERT_TRUE(ports.changes().ClearVifFromPortOtherThan("lp-9", kVif));
  EXPECT_EQ(Property(kOverlay, "lp-1", port_props::kExternalId), "(none)");
}

// A reading takes long; what is written meanwhile, before or behind the place where it is, must not be lost.
TEST_F(VifIndexTest, WritesDuringReadingsStayKnown) {
  constexpr int kPorts = 60;
  for (int i = 0; i < kPorts; ++i) Create(Description("lp-" + std::to_string(i)), "none", "knlnic");
  ASSERT_TRUE(ports.holders().RefreshVifIndex());
  Fault("DVSKNL_PortDataGet delay_ms=1");
  std::atomic<bool> done{false};
  {
    NativeThread reader([&] {
      while (!done) ports.holders().RefreshVifIndex();
    });
    NativeThread writer([&] {
      for (int i = 0; i < kPorts; ++i) {
        EXPECT_TRUE(ports.properties().SetPortExtraConfig(
            kOverlay, "lp-" + std::to_string(i), port_props::kExternalId, "vif-" + std::to_string(i)));
      }
      done = true;
    });
  }
  state->ClearFaults("");
  state->journal().Clear();
  for (int i = 0; i < kPorts; ++i) {
    ASSERT_TRUE(ports.changes().ClearVifFromPortOtherThan("another", "vif-" + std::to_string(i)));
  }
  EXPECT_EQ(Lists(), 0U);
  for (int i = 0; i < kPorts; ++i) {
    EXPECT_EQ(Property(kOverlay, "lp-" + std::to_string(i), port_props::kExternalId), "(none)");
  }
}

}  // namespace
}  // namespace zem::zema
