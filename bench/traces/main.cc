// Traceflow between a dataplane agent and a manager with three proxies, each over its real sockets: how long
// a status takes on its way up, and whether observations at the rate of a busy host pass without anything
// growing.
//
// bench_traces [SECONDS]

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <map>
#include <mutex>

#include "app/traceflow/traceflow_app.h"
#include "bench/soak/agent_side.h"
#include "bench/soak/measures.h"
#include "framework/dataplane/lcp_adapter.h"
#include "mpaclient/verticals.h"
#include "platform/core/thread.h"
#include "platform/metrics/metrics.h"
#include "platform/provider/work_group.h"
#include "proto/lcp/lcp.pb.h"
#include "sim/dataplane/dataplane_agent.h"
#include "sim/manager/manager.h"

namespace zem::bench {
namespace {

using orlane::zem::lcp::LcpDpMsg;

constexpr const char* kVertical = "Traceflow";
constexpr int kRounds = 2000;
constexpr int kPerSecond = 5000;
constexpr auto kStep = std::chrono::milliseconds(2);
constexpr std::chrono::seconds kPatience{30};
// What a status may take, and how much the process may grow.
constexpr double kMostUs = 1000;
constexpr double kMostKib = 32 * 1024;

std::string FrameOf(const LcpDpMsg& message) {
  const std::string body = message.SerializeAsString();
  sim::DataplaneHeader header;
  header.length = static_cast<uint32_t>(sim::DataplaneHeader::kSize + body.size());
  return header.Bytes() + body;
}

template <class Done>
bool Await(const Done& done) {
  const Instant end = Now() + kPatience;
  while (!done() && Now() < end) SleepFor(std::chrono::milliseconds(10));
  return done();
}

// The time from the dataplane agent's status to the end of the manager's call.
bool MeasureStatuses(sim::Manager& manager, sim::DataplaneAgent& dataplane) {
  std::mutex mutex;
  Instant told;
  dataplane.SetObserver({.frame =
                             [&](const sim::DataplaneAgent::Frame& frame) {
                               LcpDpMsg message;
                               message.ParseFromString(frame.body);
                               const auto round = message.traceflow().packet_out_request().round_id();
                               message.Clear();
                               auto& status =
                                   *message.mutable_traceflow()->mutable_packet_out_request_status();
                               *status.mutable_round_id() = round;
                               status.set_status(0);
                               const std::string answer = FrameOf(message);
                               const std::lock_guard lock(mutex);
                               told = Now();
                               dataplane.Send(answer, false);
                             },
                         .end = [] {}});
  std::vector<double> us;
  for (int i = 0; i < kRounds; ++i) {
    std::promise<bool> answered;
    sim::Manager::SendRequest request{.vertical = kVertical,
                                      .member = "TraceflowPacketOutRequestMsg",
                                      .text = "round_id { first: 1 second: " + std::to_string(i) + " }"};
    manager.Send(request, [&](const sim::HostAnswer& answer) { answered.set_value(answer.status.ok()); });
    if (!answered.get_future().get()) return false;
    const std::lock_guard lock(mutex);
    us.push_back(std::chrono::duration<double, std::micro>(Now() - told).count());
  }
  dataplane.SetObserver({});
  PrintLine("traces", "status", "median-us", Quantile(us, 0.5), kMostUs);
  PrintLine("traces", "status", "99th-us", Quantile(us, 0.99));
  return Quantile(us, 0.5) <= kMostUs;
}

bool MeasureObservations(sim::Manager& manager, sim::DataplaneAgent& dataplane, int seconds) {
  LcpDpMsg message;
  auto& packet_in = *message.mutable_traceflow()->mutable_packet_in_request();
  packet_in.mutable_observation()->set_component("port");
  packet_in.mutable_observation()->set_component_name("00000000-0000-4000-8000-000000000001");
  packet_in.mutable_packet_metadata()->mutable_source_mac()->set_address(2);
  const std::string frame = FrameOf(message);
  const uint64_t before = manager.record().received_count();
  const auto total = static_cast<uint64_t>(kPerSecond) * static_cast<uint64_t>(seconds);
  const double cpu = CpuSeconds();
  const Instant begin = Now();
  uint64_t sent = 0;
  uint64_t middle_kib = 0;
  while (sent < total) {
    const auto passed = std::chrono::duration<double>(Now() - begin).count();
    const auto due = std::min(total, static_cast<uint64_t>(passed * kPerSecond));
    for (; sent < due; ++sent) {
      if (!dataplane.Send(frame, false).empty()) return false;
    }
    if (middle_kib == 0 && sent > total / 2) middle_kib = ResidentKib();
    SleepFor(kStep);
  }
  const size_t aphs = std::size(kAphs);
  const bool all = Await([&] { return manager.record().received_count() >= before + total * aphs; });
  const double took = std::chrono::duration<double>(Now() - begin).count();
  PrintLine("traces", "observations", "per-second", static_cast<double>(total) / took);
  PrintLine("traces", "observations", "cpu-us", (CpuSeconds() - cpu) * 1e6 / static_cast<double>(total));
  const double growth =
      static_cast<double>(ResidentKib()) - static_cast<double>(std::max<uint64_t>(middle_kib, 1));
  PrintLine("traces", "observations", "growth-of-the-second-half-kib", growth, kMostKib);
  return all && growth <= kMostKib;
}

int Run(int seconds) {
  const LogCounter log;
  const Endpoints endpoints = FreeEndpoints();
  sim::Manager::Options options;
  options.info_endpoint = endpoints.info;
  options.forwarding_endpoint = endpoints.forwarding;
  options.transport_node_id = EarlyTransportNode();
  options.remembered = 1000;
  sim::Manager manager(options);
  manager.StartProxy();
  for (const char* const aph : kAphs) manager.AddAph(aph, aph == kAphs[0]);

  char folder[] = "/tmp/bench-traces.XXXXXX";
  if (::mkdtemp(folder) == nullptr) return 1;
  const std::string link = std::string(folder) + "/link";
  bool good = false;
  {
    sim::DataplaneAgent dataplane(link);
    AsioZemProvider provider;
    provider.RunAsync(2);
    metrics::Registry metrics;
    const boost::intrusive_ptr<WorkGroup> group(new WorkGroup("tarvik", metrics, WorkGroup::kUnbounded));
    group->Start(2);
    boost::intrusive_ptr<Tarvik::LcpAdapter> adapter(new Tarvik::LcpAdapter(group, link));
    adapter->Start(provider);
    {
      const AgentSide agent(endpoints, {}, {});
      const auto traceflow = std::make_shared<Tarvik::TraceflowApp>(provider, adapter);
      traceflow->Start();
      good = Await(
          [&] { return agent.Ready(GetVertical(VerticalId::kTraceflow)) && dataplane.state().connected; });
      // The other proxies' stubs come a little later than the master's.
      SleepFor(std::chrono::seconds(6));
      good = good && MeasureStatuses(manager, dataplane);
      good = good && MeasureObservations(manager, dataplane, seconds);
      traceflow->Stop();
    }
    adapter->Stop();
    group->Stop();
    provider.StopAndWait(true);
  }
  std::filesystem::remove_all(folder);
  return good ? 0 : 1;
}

}  // namespace
}  // namespace zem::bench

int main(int argc, char** argv) { return zem::bench::Run(argc > 1 ? std::max(1, std::atoi(argv[1])) : 10); }
