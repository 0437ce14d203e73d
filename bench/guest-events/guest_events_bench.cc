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
#include "app/ctxteng/guest/endvat_lib.h"
#include "bench/guest-events/bench_engine.h"
#include "bench/guest-events/endurance.h"
#include "framework/log/logger.h"
#include "platform/core/thread.h"
#include "sim/guest/world/guest_world.h"

namespace {

using SteadyClock = std::chrono::steady_clock;
using zem::bench::AddGuest;
using zem::bench::CountingClient;
using zem::bench::StartEngine;
using zem::sim::guest::GuestWorld;

constexpr int kRounds = 9;

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

void RunEvents(const std::string& folder, int events) {
  GuestWorld world(folder);
  AddGuest(world, 1);
  zem::bench::NoFirewall firewall;
  const auto client = std::make_shared<CountingClient>();
  Ctxt::CtxtCore& core = Ctxt::CtxtCore::GetInstance();
  StartEngine(world, firewall, client, true, [](ENDVAT_NETWORK_HANDLER handler) {
    engine_handler = handler;
    return &MeasuringHandler;
  });
  const std::string name = zem::bench::NameOf(1);
  const std::string uuid = zem::bench::UuidOf(1);
  WaitFor([&] { return client->record() != nullptr && world.guest(name).data_set(); });

  const int calls = events * 50;
  void* const data = client->record();
  volatile ENDVAT_NETWORK_HANDLER empty = &EmptyHandler;
  const double empty_ns = PerCall(calls, 1, [&] { empty(0, nullptr, data); });
  const double unwanted_ns = PerCall(calls, 1, [&] { engine_handler(0, nullptr, data); });
  const double unwanted_two_ns = PerCall(calls, 2, [&] { engine_handler(0, nullptr, data); });
  std::printf("guest-events unwanted ns ours=%.0f peer=%.0f ratio=%.2f\n", unwanted_ns, empty_ns,
              empty_ns / unwanted_ns);
  std::printf("guest-events unwanted-two-threads ns ours=%.0f peer=%.0f ratio=%.2f\n", unwanted_two_ns,
              unwanted_ns, unwanted_ns / unwanted_two_ns);

  core.guests().SetEventMask(uuid, Ctxt::kIdfwClient, 0x48);
  world.Tick(name);
  WaitFor([&] { return world.guest(name).mask == 0xE48; });
  std::vector<double> ratios;
  for (int round = 0; round < kRounds; ++round) {
    engine_ns = 0;
    bare_ns = 0;
    measured = 0;
    for (int i = 0; i < events / kRounds + 1; ++i) {
      world.Close(name, world.Connect(name, zem::bench::Connection()));
      WaitFor([&] { return world.guest(name).undelivered < 40; });
    }
    WaitFor([&] { return world.guest(name).undelivered == 0; });
    ratios.push_back(static_cast<double>(engine_ns) / static_cast<double>(bare_ns));
  }
  const double bare = static_cast<double>(bare_ns) / measured;
  std::printf("guest-events wanted ns ours=%.0f peer=%.0f ratio=%.2f\n", bare * Median(ratios), bare,
              1 / Median(ratios));
  core.Shutdown(zem::bench::kClients);
}

}  // namespace

int main(int argc, char** argv) {
  zem::Logger::logLevel = zem::kLogInfo;
  zem::Logger::SetEmitter([](int, const char*) {});
  const std::string folder = std::filesystem::temp_directory_path() / "zem-bench-guests";
  const std::string mode = argc > 1 ? argv[1] : "20000";
  int failed = 0;
  if (mode == "overload") {
    failed = zem::bench::RunOverload(folder, argc > 2 ? std::atof(argv[2]) : 60);
  } else if (mode == "restarts") {
    failed = zem::bench::RunRestarts(folder, argc > 2 ? std::atoi(argv[2]) : 1000);
  } else if (const int events = std::atoi(mode.c_str()); events > 0) {
    RunEvents(folder, events);
    failed = zem::bench::RunOverload(folder, events / 2e4);
    failed += zem::bench::RunRestarts(folder, events / 20);
  } else {
    std::fprintf(stderr, "usage: bench_guest-events [EVENTS | overload [SECONDS] | restarts [COUNT]]\n");
    return 2;
  }
  std::filesystem::remove_all(folder);
  return failed == 0 ? 0 : 1;
}
