// What the engine adds to an event of the guest event library.
//
// An event that no client wants is compared with an empty handler.  For one that a client wants, each
// callback first runs the engine's handler and then the bare library calls that the same event needs, so both
// see the same world at the same time.

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "app/ctxteng/engine/ctxt_core.h"
#include "app/ctxteng/firewall/dfw_connector.h"
#include "app/ctxteng/firewall/fw_lib.h"
#include "app/ctxteng/guest/endvat_lib.h"
#include "bench/guest-events/sim_endvat_lib.h"
#include "framework/log/logger.h"
#include "platform/core/thread.h"
#include "sim/guest/world/guest_world.h"

namespace {

using SteadyClock = std::chrono::steady_clock;
using zem::sim::guest::GuestWorld;

constexpr const char* kUuid = "502a1122-3344-5566-7788-99aabbccdd01";
constexpr int kRounds = 9;

class NoFirewall final : public Ctxt::DfwUtil::DfwConnector {
 public:
  NoFirewall() : DfwConnector([] { return std::unique_ptr<Ctxt::IFwLib>(); }) {}
  void Initialize() override {}
  void Stop() override {}
  int AddUserGroupMembership(const Ctxt::DfwUserProcessInfo&) override { return kDone; }
  int AddUser(const Ctxt::DfwUserProcessInfo&) override { return kDone; }
  int AddUserAndProcess(const Ctxt::DfwUserProcessInfo&) override { return kDone; }
  int GetFilters(const std::string&) override { return 1; }
};

class Client final : public Ctxt::ICtxtClient {
 public:
  void Initialize(const CtxtClientParam&,
                  const std::shared_ptr<zem::covedb::CoveDbClientInterface>&) override {}
  void VmPowerOnEventHandler(const std::shared_ptr<Ctxt::VmData>& vm) override { record = vm.get(); }
  void VmPowerOffEventHandler(const std::shared_ptr<Ctxt::VmData>&) override {}
  void Shutdown() override {}

  std::atomic<Ctxt::VmData*> record{nullptr};
};

// The engine's handler, and the sums of what the callbacks took.
ENDVAT_NETWORK_HANDLER engine_handler = nullptr;
std::atomic<int64_t> engine_ns{0};
std::atomic<int64_t> bare_ns{0};
std::atomic<int> measured{0};

template <class Call>
void TwoCalls(std::vector<char>& buffer, const Call& call) {
  uint32_t length = 0;
  if (call(nullptr, &length) != ENDVAT_ERROR_BUFFER_TOO_SMALL) std::abort();
  if (buffer.size() < length) buffer.resize(length);
  if (call(buffer.data(), &length) != ENDVAT_SUCCESS) std::abort();
}

void BareCalls(ENDVAT_HANDLE handle) {
  thread_local std::vector<char> buffer(4096);
  const auto library = Ctxt::EndvatLib();
  TwoCalls(buffer, [&](void* b, uint32_t* l) { return library->EndvatNetworkGetEventInfo(handle, b, l); });
  ENDVAT_PROCESS_ID process;
  std::copy_n(buffer.data() + 60, sizeof(process), reinterpret_cast<char*>(&process));
  TwoCalls(buffer, [&](void* b, uint32_t* l) {
    return library->EndvatQueryProcessInfo(&process, ENDVAT_PROCESS_GROUPS, b, l);
  });
  TwoCalls(buffer, [&](void* b, uint32_t* l) {
    return library->EndvatQueryNetworkEventInformation(handle, ENDVAT_NETWORK_EVENT_PROCESS, b, l);
  });
  TwoCalls(buffer, [&](void* b, uint32_t* l) {
    return library->EndvatQueryProcessInfo(&process, ENDVAT_PROCESS_HASH, b, l);
  });
}

uint32_t MeasuringHandler(uint32_t type, ENDVAT_HANDLE handle, void* data) {
  // In turns, since the second finds the world's state in the processor's caches.
  const bool engine_first = ++measured % 2 == 0;
  const auto begin = SteadyClock::now();
  engine_first ? (void)engine_handler(type, handle, data) : BareCalls(handle);
  const auto middle = SteadyClock::now();
  engine_first ? BareCalls(handle) : (void)engine_handler(type, handle, data);
  const auto end = SteadyClock::now();
  (engine_first ? engine_ns : bare_ns) += (middle - begin).count();
  (engine_first ? bare_ns : engine_ns) += (end - middle).count();
  return 1;
}

double Median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2), values.end());
  return values[values.size() / 2];
}

// Nanoseconds per call of `handler` from `threads` threads at once.
template <class Handler>
double PerCall(int calls, int threads, const Handler& handler) {
  std::vector<double> rounds;
  for (int round = 0; round < kRounds; ++round) {
    const auto begin = SteadyClock::now();
    {
      std::vector<zem::NativeThread> workers;
      for (int i = 0; i < threads; ++i) {
        workers.emplace_back([&handler, calls] {
          for (int call = 0; call < calls; ++call) handler();
        });
      }
    }
    rounds.push_back(static_cast<double>((SteadyClock::now() - begin).count()) / calls / threads);
  }
  return Median(rounds);
}

uint32_t EmptyHandler(uint32_t, ENDVAT_HANDLE, void*) { return 1; }

template <class Done>
void WaitFor(const Done& done) {
  while (!done()) zem::SleepFor(std::chrono::milliseconds(1));
}

}  // namespace

int main(int argc, char** argv) {
  const int events = argc > 1 ? std::atoi(argv[1]) : 20000;
  if (events < 1) return 2;
  zem::Logger::logLevel = zem::kLogInfo;
  zem::Logger::SetEmitter([](int, const char*) {});
  const std::string folder = std::filesystem::temp_directory_path() / "zem-bench-guests";
  GuestWorld world(folder);
  world.AddGuest({.name = "d1", .vc_uuid = kUuid}, std::string("vc.uuid = \"") + kUuid + "\"\n");
  world.SetUser("d1", "alice",
                {.name = "alice",
                 .domain = "corp",
                 .sid = "S-1-5-21-1-1-1-1001",
                 .groups = {"S-1-5-21-1-1-1-513", "S-1-5-32-545"}});
  world.PowerOn("d1");
  world.StartProcess("d1", {.pid = 100,
                            .ctime = 7,
                            .user = "alice",
                            .name = "C:\\Program Files\\a.exe",
                            .command_line = "a.exe --verbose",
                            .hash = std::string(32, '\x5a')});

  NoFirewall firewall;
  const auto client = std::make_shared<Client>();
  Ctxt::CtxtCore& core = Ctxt::CtxtCore::GetInstance();
  Ctxt::EngineParts parts;
  parts.firewall = &firewall;
  parts.clients.idfw = client;
  parts.clients.ids = client;
  parts.clients.pace = client;
  parts.make_library = [&world] {
    return zem::sim::guest::MakeSimEndvatLib(world, [](ENDVAT_NETWORK_HANDLER handler) {
      engine_handler = handler;
      return &MeasuringHandler;
    });
  };
  const uint32_t clients = Ctxt::kIdfwBit | Ctxt::kIdsBit | Ctxt::kZemiBit;
  core.Initialize(
      {.listen_port = "48655", .worker_threads = "2", .max_events_per_vm = "50", .client_ids = clients},
      parts, nullptr, nullptr);
  core.WaitForStart();
  WaitFor([&] { return client->record.load() != nullptr && world.guest("d1").data_set(); });

  const int calls = events * 50;
  void* const data = client->record.load();
  volatile ENDVAT_NETWORK_HANDLER empty = &EmptyHandler;
  const double empty_ns = PerCall(calls, 1, [&] { empty(0, nullptr, data); });
  const double unwanted_ns = PerCall(calls, 1, [&] { engine_handler(0, nullptr, data); });
  const double unwanted_two_ns = PerCall(calls, 2, [&] { engine_handler(0, nullptr, data); });
  std::printf("guest-events unwanted ns ours=%.0f peer=%.0f ratio=%.2f\n", unwanted_ns, empty_ns,
              empty_ns / unwanted_ns);
  std::printf("guest-events unwanted-two-threads ns ours=%.0f peer=%.0f ratio=%.2f\n", unwanted_two_ns,
              unwanted_ns, unwanted_ns / unwanted_two_ns);

  core.guests().SetEventMask(kUuid, Ctxt::kIdfwClient, 0x48);
  world.Tick("d1");
  WaitFor([&] { return world.guest("d1").mask == 0xE48; });
  const zem::sim::guest::Socket socket{.pid = 100,
                                       .source_ip = "10.0.0.1",
                                       .source_port = 4000,
                                       .destination_ip = "10.0.0.2",
                                       .destination_port = 443};
  std::vector<double> ratios;
  for (int round = 0; round < kRounds; ++round) {
    engine_ns = 0;
    bare_ns = 0;
    measured = 0;
    for (int i = 0; i < events / kRounds + 1; ++i) {
      world.Close("d1", world.Connect("d1", socket));
      WaitFor([&] { return world.guest("d1").undelivered < 40; });
    }
    WaitFor([&] { return world.guest("d1").undelivered == 0; });
    ratios.push_back(static_cast<double>(engine_ns) / static_cast<double>(bare_ns));
  }
  const double bare = static_cast<double>(bare_ns) / measured;
  std::printf("guest-events wanted ns ours=%.0f peer=%.0f ratio=%.2f\n", bare * Median(ratios), bare,
              1 / Median(ratios));
  core.Shutdown(clients);
  std::filesystem::remove_all(folder);
  return 0;
}
