#include "sim/guest/library/endvat_library.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <vector>

#include "platform/core/virtual_clock.h"
#include "sim/guest/library/memory_link.h"
#include "sim/guest/library/socket_link.h"
#include "sim/guest/mux_peer.h"
#include "tests/support/temp_dir.h"

namespace zem::sim::guest {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Handlers = EndvatLibrary::Handlers;
using Needs = EndvatLibrary::Needs;

// What the callbacks saw; they are plain functions.
struct Seen {
  std::mutex mutex;
  std::vector<std::string> events;
  EndvatLibrary* library = nullptr;
  std::function<void(ENDVAT_HANDLE)> in_vm;

  void Add(std::string event) {
    std::lock_guard lock(mutex);
    events.push_back(std::move(event));
  }
  std::vector<std::string> Take() {
    std::lock_guard lock(mutex);
    return std::exchange(events, {});
  }
};
Seen* seen = nullptr;

void OnVm(uint32_t type, ENDVAT_HANDLE handle, void*) {
  seen->Add(type == 0 ? "on" : "off");
  if (seen->in_vm) seen->in_vm(handle);
}
uint32_t OnNetwork(uint32_t type, ENDVAT_HANDLE, void*) {
  seen->Add("net" + std::to_string(type));
  return 1;
}
void OnMux(uint32_t type) { seen->Add("mux" + std::to_string(type)); }

Question Of(Operation operation, uint32_t kind = 0) {
  Question question;
  question.operation = operation;
  question.kind = kind;
  return question;
}

class EndvatLibraryTest : public testing::Test {
 protected:
  EndvatLibraryTest() { seen = &seen_; }
  ~EndvatLibraryTest() override {
    (void)library.Unload();
    seen = nullptr;
  }

  ENDVAT_STATUS Init(uint32_t version, const char* port, const char* workers, const char* extra = nullptr) {
    const std::array<const char*, 5> keys = {"EndvatPort", "EndvatWorkerThreads", "EndvatMaxEventsVM", extra,
                                             nullptr};
    const std::array<const char*, 5> values = {port, workers, "2", "", nullptr};
    ENDVAT_LIB_INFO info;
    return library.Init(version, keys.data(), values.data(), &info);
  }
  void AddGuest(const std::string& name) {
    Guest guest;
    guest.name = name;
    world.AddGuest(guest, "");
    world.SetUser(name, "alice", {.name = "alice", .sid = "S-1"});
    world.PowerOn(name);
    world.StartProcess(name, {.pid = 1, .user = "alice"});
  }

  VirtualClock clock;
  test::TempDir folder;
  Seen seen_;
  GuestWorld world{folder.Path("guests")};
  EndvatLibrary library{[this](const std::string&, uint32_t) { return std::make_unique<MemoryLink>(world); }};
};

TEST_F(EndvatLibraryTest, OrderOfCalls) {
  EXPECT_EQ(library.Register(&Handlers::vm, &OnVm), ENDVAT_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(library.EnableCallbacks(), ENDVAT_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(Init(0, "1", "1"), ENDVAT_ERROR_REQ_VER_TOO_OLD);
  EXPECT_EQ(Init(2, "1", "1"), ENDVAT_ERROR_REQ_VER_TOO_NEW);
  EXPECT_EQ(Init(1, "65536", "1"), ENDVAT_ERROR_INVALID_CONFIG);
  EXPECT_EQ(Init(1, "1", "257"), ENDVAT_ERROR_INVALID_CONFIG);
  EXPECT_EQ(Init(1, "1", "1", "NoSuchKey"), ENDVAT_ERROR_INVALID_CONFIG);
  EXPECT_EQ(Init(1, "1", "1"), ENDVAT_SUCCESS);
  EXPECT_EQ(Init(1, "1", "1"), ENDVAT_ERROR_ALREADY_SET);
  EXPECT_EQ(library.EnableCallbacks(), ENDVAT_ERROR_WRONG_CALL_ORDER);
  EXPECT_EQ(library.Register(&Handlers::vm, &OnVm), ENDVAT_SUCCESS);
  EXPECT_EQ(library.Register(&Handlers::vm, &OnVm), ENDVAT_ERROR_ALREADY_SET);
  EXPECT_EQ(library.EnableCallbacks(), ENDVAT_SUCCESS);
  EXPECT_EQ(library.Register(&Handlers::mux, &OnMux), ENDVAT_ERROR_WRONG_CALL_ORDER);
  EXPECT_EQ(library.Unload(), ENDVAT_SUCCESS);
  EXPECT_EQ(library.Unload(), ENDVAT_ERROR_ALREADY_UNLOADED);
}

// A question is answered only where it may be asked, and a size only for a buffer that is large enough.
TEST_F(EndvatLibraryTest, QuestionsNeedTheirCallback) {
  ASSERT_EQ(Init(1, "1", "2"), ENDVAT_SUCCESS);
  ASSERT_EQ(library.Register(&Handlers::vm, &OnVm), ENDVAT_SUCCESS);
  uint32_t length = 0;
  EXPECT_EQ(library.Query(Needs::kGuest, nullptr, Of(Operation::kVmId), nullptr, &length),
            ENDVAT_ERROR_WRONG_CONTEXT);
  EXPECT_EQ(world.violations().size(), 1u);
  std::vector<ENDVAT_STATUS> results;
  seen_.in_vm = [&](ENDVAT_HANDLE handle) {
    char buffer[256];
    const auto ask = [&](Needs needs, ENDVAT_HANDLE h, Question question, void* out, uint32_t size) {
      uint32_t size_or_need = size;
      results.push_back(library.Query(needs, h, std::move(question), out, &size_or_need));
    };
    ask(Needs::kGuest, nullptr, Of(Operation::kVmId), nullptr, 0);
    ask(Needs::kGuest, nullptr, Of(Operation::kVmId), buffer, 5);
    ask(Needs::kGuest, nullptr, Of(Operation::kVmId), buffer, sizeof(buffer));
    ask(Needs::kGuest, nullptr, Of(Operation::kSystemInfo, 77), nullptr, 0);
    ask(Needs::kNetworkEvent, handle, Of(Operation::kNetworkEvent), nullptr, 0);
    ask(Needs::kEvent, nullptr, Of(Operation::kSidInfo), nullptr, 0);
    ask(Needs::kServiceVm, nullptr, Of(Operation::kSolutionId), nullptr, 0);
    ask(Needs::kHealth, nullptr, Of(Operation::kHealthStatus), nullptr, 0);
    results.push_back(library.Query(Needs::kGuest, nullptr, Of(Operation::kVmId), buffer, nullptr));
    results.push_back(library.Unload());
  };
  AddGuest("d1");
  ASSERT_EQ(library.EnableCallbacks(), ENDVAT_SUCCESS);
  clock.Settle();
  EXPECT_THAT(results,
              ElementsAre(ENDVAT_ERROR_BUFFER_TOO_SMALL, ENDVAT_ERROR_BUFFER_TOO_SMALL, ENDVAT_SUCCESS,
                          ENDVAT_ERROR_INVALID_PARAMETER, ENDVAT_ERROR_WRONG_CONTEXT,
                          ENDVAT_ERROR_INVALID_HANDLE, ENDVAT_ERROR_WRONG_CONTEXT, ENDVAT_ERROR_WRONG_CONTEXT,
                          ENDVAT_ERROR_INVALID_POINTER, ENDVAT_ERROR_WRONG_CALL_ORDER));
}

// An answer that is held back for longer than the time-out is none.
TEST_F(EndvatLibraryTest, LateAnswers) {
  ASSERT_EQ(Init(1, "1", "1"), ENDVAT_SUCCESS);
  ASSERT_EQ(library.Register(&Handlers::vm, &OnVm), ENDVAT_SUCCESS);
  world.SetFault({.operation = Operation::kVmId, .times = 1, .delay_ms = 9000});
  world.SetFault({.operation = Operation::kVmId, .delay_ms = 11000});
  std::vector<ENDVAT_STATUS> results;
  seen_.in_vm = [&](ENDVAT_HANDLE) {
    for (int i = 0; i < 2; ++i) {
      uint32_t length = 0;
      results.push_back(library.Query(Needs::kGuest, nullptr, Of(Operation::kVmId), nullptr, &length));
    }
  };
  AddGuest("d1");
  ASSERT_EQ(library.EnableCallbacks(), ENDVAT_SUCCESS);
  clock.RunFor(std::chrono::seconds(30));
  EXPECT_THAT(results, ElementsAre(ENDVAT_ERROR_BUFFER_TOO_SMALL, ENDVAT_ERROR_TIMEOUT));
  EXPECT_EQ(world.violations().size(), 1u);  // a callback of 19 seconds
}

// Events that nobody asked for are filtered, those past the bound let through; all are counted.
TEST_F(EndvatLibraryTest, NetworkEventsAreMaskedAndBounded) {
  ASSERT_EQ(Init(1, "1", "1"), ENDVAT_SUCCESS);
  ASSERT_EQ(library.Register(&Handlers::vm, &OnVm), ENDVAT_SUCCESS);
  ASSERT_EQ(library.Register(&Handlers::network, &OnNetwork), ENDVAT_SUCCESS);
  AddGuest("d1");
  seen_.in_vm = [&](ENDVAT_HANDLE) { EXPECT_EQ(library.SetMask(0x240), ENDVAT_SUCCESS); };
  ASSERT_EQ(library.EnableCallbacks(), ENDVAT_SUCCESS);
  clock.Settle();
  const Socket tcp{.pid = 1, .source_ip = "10.0.0.1", .destination_ip = "10.0.0.2"};
  Socket udp = tcp;
  udp.protocol = 1;
  world.Connect("d1", udp);
  for (int i = 0; i < 3; ++i) world.Connect("d1", tcp);
  clock.Settle();
  const Guest::Counts counts = world.guest("d1").counts;
  EXPECT_EQ(counts.offered, 8u);
  EXPECT_EQ(counts.filtered, 5u);
  EXPECT_EQ(counts.delivered + counts.dropped, 3u);
  EXPECT_GE(counts.delivered, 2u);
}

// Over the socket: a guest that goes while the multiplexer is away is told when it is back, one that stays is
// not.
TEST(MuxPeerTest, LossAndReturnOfTheMultiplexer) {
  test::TempDir folder;
  Seen local;
  seen = &local;
  GuestWorld world(folder.Path("guests"));
  MuxPeer peer(world, folder.Path("mux"), std::chrono::hours(1));
  EndvatLibrary library([&](const std::string&, uint32_t timeout) {
    return std::make_unique<SocketLink>(folder.Path("mux"), timeout);
  });
  const std::array<const char*, 3> keys = {"EndvatPort", "EndvatWorkerThreads", nullptr};
  const std::array<const char*, 3> values = {"1", "1", nullptr};
  ENDVAT_LIB_INFO info;
  ASSERT_EQ(library.Init(1, keys.data(), values.data(), &info), ENDVAT_SUCCESS);
  ASSERT_EQ(library.Register(&Handlers::vm, &OnVm), ENDVAT_SUCCESS);
  ASSERT_EQ(library.Register(&Handlers::mux, &OnMux), ENDVAT_SUCCESS);
  for (const char* name : {"a", "b"}) {
    Guest guest;
    guest.name = name;
    world.AddGuest(guest, "");
    world.PowerOn(name);
  }
  const auto wait_for = [&](size_t events) {
    for (int i = 0; i < 500; ++i) {
      {
        std::lock_guard lock(local.mutex);
        if (local.events.size() >= events) break;
      }
      SleepFor(std::chrono::milliseconds(10));
    }
    std::vector<std::string> taken = local.Take();
    std::sort(taken.begin(), taken.end());
    return taken;
  };
  ASSERT_EQ(library.EnableCallbacks(), ENDVAT_SUCCESS);
  EXPECT_THAT(wait_for(3), ElementsAre("mux0", "on", "on"));
  peer.Die();
  EXPECT_THAT(wait_for(1), ElementsAre("mux1"));
  EXPECT_EQ(library.ConfigureMux("", 0), ENDVAT_MUX_ERROR_UNIX_SOCKET);
  world.PowerOff("b");
  ASSERT_TRUE(peer.Return());
  EXPECT_THAT(wait_for(2), ElementsAre("mux0", "off"));
  EXPECT_EQ(library.ConfigureMux("\xff", 1), ENDVAT_MUX_ERROR_PARSING_CONFIG);
  EXPECT_EQ(library.ConfigureMux("", 0), ENDVAT_SUCCESS);
  EXPECT_EQ(library.Unload(), ENDVAT_SUCCESS);
  EXPECT_THAT(world.violations(), IsEmpty());
  seen = nullptr;
}

}  // namespace
}  // namespace zem::sim::guest
