#include "app/ctxteng/idfw/idfw.h"

#include <gmock/gmock.h>

#include <chrono>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/guest/guest_table.h"
#include "app/ctxteng/idfw/idfw_commands.h"
#include "platform/core/uuid.h"
#include "platform/core/virtual_clock.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/firewall_objects.pb.h"
#include "tests/app/ctxteng/idfw/fake_channel.h"
#include "tests/support/log_capture.h"

namespace Ctxt {
namespace {

namespace store = orlane::zem::covedb;
using std::chrono::seconds;

constexpr const char* kU1 = "11111111-2222-4333-8444-555555555555";
constexpr const char* kU2 = "66666666-2222-4333-8444-555555555555";
constexpr int kSet = 7;
constexpr int kDelete = 8;

class IdfwTest : public testing::Test {
 protected:
  IdfwTest() {
    param.wellKnownSids = {"S-1-5-18", "S-1-5-19"};
    channel.AckAll();
  }
  void Start() {
    idfw.Initialize(param, nullptr);
    clock.Settle();
  }
  std::shared_ptr<VmData> AddGuest(const std::string& key) {
    auto vm = std::make_shared<VmData>();
    vm->vc_uuid = key;
    vm->bios_uuid = "42000000000000000000000000000001";
    vm->os.os_type = kWindows;
    vm->os.terminal_svc_enabled = false;
    guests.Add(vm);
    idfw.VmPowerOnEventHandler(vm);
    return vm;
  }
  static store::MonitorUpdateMsg Update(const char* id, int operation,
                                        std::initializer_list<std::pair<uint32_t, int>> features = {}) {
    store::SecurityFeatureToggleMsg toggle;
    if (id != nullptr) zem::SetUuid(*zem::ParseUuid(id), toggle.mutable_id());
    for (const auto& [number, status] : features) {
      auto* const feature = toggle.add_feature();
      feature->set_feature(number);
      if (status >= 0) feature->set_status(status != 0);
    }
    store::SecurityFeatureToggleOpMsg op;
    op.set_operation(operation);
    store::MonitorUpdateMsg update;
    update.set_object_type(store::SECURITY_FEATURE_TOGGLE);
    update.set_object(toggle.SerializeAsString());
    update.set_operation(op.SerializeAsString());
    return update;
  }
  void Logon(const std::shared_ptr<VmData>& vm, uint32_t type = SESSION_TYPE_LOGON,
             const std::string& user = "alice") {
    auto session = std::make_shared<UserSessionInfo>();
    session->vc_uuid = vm->vc_uuid;
    session->user_name = user;
    session->domain_name = "corp";
    session->session_id = 3;
    session->session_type = type;
    session->client_ip = "10.9.9.9";
    session->client_ip_version = 0;
    idfw.SystemEventHandler(session, vm);
    clock.Settle();
  }
  uint64_t MaskOf(const std::shared_ptr<VmData>& vm) { return vm->idfw_event_mask.mask; }

  zem::test::LogCapture log{zem::kLogDebug};
  zem::VirtualClock clock;
  GuestTable guests;
  test::FakeChannel channel;
  CtxtClientParam param;
  Idfw idfw{guests, channel};
};

// What each update does to the state, one after the other.
TEST_F(IdfwTest, FeatureToggle) {
  Start();
  const auto vm = AddGuest("vm-1");
  EXPECT_EQ(MaskOf(vm), 0xE00u);
  struct Step {
    store::MonitorUpdateMsg update;
    bool enabled;
    const char* line;
  };
  store::MonitorUpdateMsg other_type = Update(kU1, kSet, {{5, 1}});
  other_type.set_object_type(store::RULE);
  store::MonitorUpdateMsg garbage = Update(kU1, kSet);
  garbage.set_object("\xff\xff");
  for (const Step& step : {
           Step{Update(kU1, kSet, {{4, 1}}), false, "Idfw: Resetting status to false, stored UUID: 1111"},
           Step{Update(kU1, kSet, {{5, -1}, {4, 1}, {5, 1}, {5, 0}}), true,
                "Idfw: Idfw enable update detected, new config = enabled, UUID: 11111111-"},
           Step{Update(kU1, kSet, {{5, 1}}), true,
                "Idfw: mode remains unchanged with newly parsed SecFeatureToggleMsg"},
           Step{Update(kU2, kDelete), true, "Idfw: Ignore idfw status clear for UUID: 66666666-"},
           Step{Update(kU1, 9, {{5, 0}}), true, "errorCode=\"MPACTX551\""},
           Step{Update(nullptr, kSet, {{5, 0}}), true,
                "Idfw: invalid message ID is SecurityToggleFeatureMsg"},
           Step{Update("00000000-0000-0000-0000-000000000000", kSet), true, "Idfw: invalid message ID"},
           Step{other_type, true, "Idfw: CoveDB returned an incorrect msg type: 29, expecting 195"},
           Step{garbage, true, "cannot be parsed"},
           Step{Update(kU2, kSet, {{5, 0}}), false, "new config = disabled, UUID: 66666666-"},
           Step{Update(kU1, kDelete), false, "Idfw: Ignore idfw status clear for UUID: 11111111-"},
           Step{
               Update(kU2, kSet, {{5, 1}}), true,
               "Idfw: Updating status to : 1, stored UUID: 66666666-2222-4333-8444-555555555555, prev: 6666"},
           Step{Update(kU2, kDelete), false, "Idfw: Clear idfw status for UUID: 66666666-"},
       }) {
    SCOPED_TRACE(step.line);
    log.Clear();
    idfw.OnFeatureToggle(step.update);
    EXPECT_TRUE(log.Contains(step.line)) << testing::PrintToString(log.Texts());
    EXPECT_EQ(idfw.GetStatus(), step.enabled);
    EXPECT_EQ(MaskOf(vm), step.enabled ? 0xE48u : 0xE00u);
  }
}

// A guest that comes later has the mask of then; one whose power-on meets the toggle gets the newer one.
TEST_F(IdfwTest, GuestsThatComeLaterFollowTheToggle) {
  Start();
  idfw.OnFeatureToggle(Update(kU1, kSet, {{5, 1}}));
  const auto vm = AddGuest("vm-1");
  EXPECT_EQ(MaskOf(vm), 0xE48u);
  idfw.Initialize(param, nullptr);
  EXPECT_FALSE(idfw.GetStatus());
  EXPECT_EQ(MaskOf(AddGuest("vm-2")), 0xE00u);
}

TEST_F(IdfwTest, AToggleThatWasDeletedDuringAnOutageIsOff) {
  Start();
  idfw.OnFeatureToggle(Update(kU1, kSet, {{5, 1}}));
  idfw.StoreBegins();
  idfw.OnFeatureToggle(Update(kU1, kSet, {{5, 1}}));
  idfw.StoreComplete();
  EXPECT_TRUE(idfw.GetStatus());
  idfw.StoreBegins();
  EXPECT_TRUE(idfw.GetStatus()) << "the store has not said all yet";
  idfw.StoreComplete();
  EXPECT_FALSE(idfw.GetStatus());
  idfw.StoreComplete();
  EXPECT_EQ(log.Count("Idfw: Clear idfw status for UUID"), 1u);
}

TEST_F(IdfwTest, ConnectionsWhoseUserTheFirewallLearns) {
  Start();
  struct Case {
    uint32_t os;
    uint32_t protocol;
    bool multi_session;
    const char* sid;
    bool wanted;
  };
  for (const Case& c :
       {Case{kWindows, 6, false, "S-1-5-21-1", true}, Case{kWindows, 1, false, "S-1-5-21-1", true},
        Case{kWindows, 1, true, "S-1-5-21-1", false}, Case{kWindows, 58, true, "S-1-5-21-1", false},
        Case{kWindows, 17, true, "S-1-5-21-1", true}, Case{kLinux, 6, false, "", false},
        Case{kWindows, 6, false, "S-1-5-18", false}}) {
    auto connection = std::make_shared<ConnInfo>();
    connection->os_type = c.os;
    connection->protocol = c.protocol;
    connection->sid = c.sid;
    auto vm = std::make_shared<VmData>();
    vm->os.terminal_svc_enabled = c.multi_session;
    EXPECT_EQ(idfw.NetworkEventHandler(connection, vm), c.wanted) << c.os << " " << c.protocol << c.sid;
  }
  EXPECT_TRUE(idfw.IsUserIgnored("S-1-5-19"));
  EXPECT_FALSE(idfw.IsUserIgnored("S-1-5-21-1"));
}

TEST_F(IdfwTest, LogonsGoToTheManagerOnlyWhileTheFeatureIsOn) {
  Start();
  const auto vm = AddGuest("502a1122-3344-5566-7788-99aabbccdd01");
  Logon(vm);
  clock.RunFor(seconds(60));
  EXPECT_TRUE(channel.sent.empty());
  idfw.OnFeatureToggle(Update(kU1, kSet, {{5, 1}}));
  Logon(vm);
  Logon(vm, SESSION_TYPE_INVALID, std::string(5000, 'u'));
  EXPECT_EQ(idfw.Count().waiting, 2u);
  clock.RunFor(seconds(60));
  ASSERT_EQ(channel.sent.size(), 1u);
  orlane::zem::context::idfw::LoginLogoffEventMsg batch;
  ASSERT_TRUE(batch.ParseFromString(channel.sent[0].bytes));
  ASSERT_EQ(batch.login_logoff_event_size(), 2);
  const auto& event = batch.login_logoff_event(0);
  EXPECT_EQ(event.user().user_name() + "@" + event.user().domain_name(), "alice@corp");
  EXPECT_EQ(event.session_id(), 3u);
  EXPECT_EQ(event.event_type(), 1u);
  EXPECT_EQ(event.client_ip().address(), "10.9.9.9");
  EXPECT_EQ(event.vm_id().second(), 0x778899aabbccdd01u);
  EXPECT_GT(event.timestamp(), 0u);
  EXPECT_FALSE(batch.login_logoff_event(1).has_event_type());
  EXPECT_EQ(batch.login_logoff_event(1).user().user_name(), std::string(4096, 'u'));
}

// Without its channel the client starts when it is initialised again, and until then drops what comes.
TEST_F(IdfwTest, StartThatFails) {
  channel.refuses = true;
  Start();
  EXPECT_TRUE(log.Contains("Idfw: Critical exception in IDFW, behavior may be undefined - "));
  idfw.OnFeatureToggle(Update(kU1, kSet, {{5, 1}}));
  Logon(AddGuest("vm-1"));
  EXPECT_TRUE(log.Contains("Idfw: The client has not started"));
  channel.refuses = false;
  Start();
  Start();
  EXPECT_EQ(log.Count("Idfw: Successfully registered AppId: 8888, AppType: IDFW-Vertical"), 1u);
  idfw.Shutdown();
  EXPECT_TRUE(log.Contains("Idfw: Idfw Shutdown complete"));
}

}  // namespace
}  // namespace Ctxt
