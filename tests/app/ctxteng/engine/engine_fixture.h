#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "app/ctxteng/engine/ctxt_core.h"
#include "bench/guest-events/sim_endvat_lib.h"
#include "platform/core/virtual_clock.h"
#include "sim/guest/world/guest_world.h"
#include "tests/app/ctxteng/engine/engine_peers.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace Ctxt::test {

constexpr const char* kDesktopUuid = "50 2a 11 22 33 44 55 66-77 88 99 aa bb cc dd 01";
constexpr const char* kDesktopKey = "502a1122-3344-5566-7788-99aabbccdd01";

/// The engine over guests of the same process, on a virtual clock.
class EngineTest : public testing::Test {
 protected:
  ~EngineTest() override { Stop(); }

  void Start(uint32_t client_ids = kIdfwBit) {
    CtxtCore::Settings settings{.listen_port = "48655", .worker_threads = "2", .max_events_per_vm = "50"};
    settings.client_ids = client_ids;
    settings.param = param;
    EngineParts parts;
    parts.make_library = [this] { return zem::sim::guest::MakeSimEndvatLib(world); };
    parts.firewall = &firewall;
    parts.clients.idfw = idfw;
    parts.clients.ids = ids;
    parts.clients.pace = pace;
    parts.clients.is_well_known_sid = [](const std::string& sid) { return sid == kSystemAccount; };
    core.Initialize(settings, parts, nullptr, nullptr);
    started = true;
    clock.Settle();
  }
  void Stop(uint32_t client_ids = kIdfwBit) {
    if (std::exchange(started, false)) core.Shutdown(client_ids);
    clock.Settle();
  }

  void AddGuest(const std::string& name, zem::sim::guest::System system, const std::string& uuid,
                std::function<void(zem::sim::guest::Guest&)> change = {}) {
    zem::sim::guest::Guest guest;
    guest.name = name;
    guest.system = system;
    guest.vc_uuid = uuid;
    if (change) change(guest);
    world.AddGuest(guest, "vc.uuid = \"" + uuid + "\"\n");
    zem::sim::guest::User alice{.name = "alice", .domain = "corp"};
    zem::sim::guest::User service{.name = "SYSTEM", .domain = "NT"};
    if (guest.windows()) {
      alice.sid = kAlice;
      alice.groups = {"S-1-5-21-1-1-1-513", "S-1-5-32-545"};
      service.sid = kSystemAccount;
      service.groups = {"S-1-5-32-544"};
    } else {
      alice.uid = 1000;
      alice.groups = {"1000", "27"};
    }
    world.SetUser(name, "alice", alice);
    world.SetUser(name, "SYSTEM", service);
    world.PowerOn(name);
    clock.Settle();
    world.StartProcess(name, Process(100, "alice"));
    world.StartProcess(name, Process(200, "SYSTEM"));
  }
  static zem::sim::guest::Process Process(uint64_t pid, const std::string& user) {
    return {.pid = pid,
            .ctime = 7,
            .user = user,
            .name = "C:\\a.exe",
            .command_line = "a.exe -x",
            .hash = std::string(32, '\x5a')};
  }
  static zem::sim::guest::Socket Tcp(uint64_t pid = 100) {
    return {.pid = pid,
            .source_ip = "10.0.0.1",
            .source_port = 4000,
            .destination_ip = "10.0.0.2",
            .destination_port = 443};
  }
  // Only the first of the two events of a connect carries a bit that the identity firewall wants.
  void Connect(const std::string& guest, zem::sim::guest::Socket socket = Tcp()) {
    world.Connect(guest, socket);
    clock.Settle();
  }
  void Tick(const std::string& guest = {}) {
    world.Tick(guest);
    clock.Settle();
  }
  uint32_t Logon(const std::string& guest, uint32_t session = 0) {
    const uint32_t id = world.Logon(guest, {.id = session, .user = "alice", .client_ip = "10.9.9.9"});
    clock.Settle();
    return id;
  }
  void Logoff(const std::string& guest, uint32_t session) {
    world.Logoff(guest, session);
    clock.Settle();
  }

  zem::test::LogCapture log{zem::kLogDebug};
  zem::VirtualClock clock;
  zem::test::TempDir folder;
  zem::sim::guest::GuestWorld world{folder.Path("guests")};
  FakeFirewall firewall;
  std::shared_ptr<RecordingClient> idfw = std::make_shared<RecordingClient>();
  std::shared_ptr<RecordingClient> ids;
  std::shared_ptr<RecordingClient> pace;
  CtxtClientParam param;
  CtxtCore& core = CtxtCore::GetInstance();
  bool started = false;
};

}  // namespace Ctxt::test
