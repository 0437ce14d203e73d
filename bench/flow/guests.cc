// The flow context client itself: an event in the guest's thread, and a report.

#include <algorithm>
#include <boost/lockfree/queue.hpp>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "app/ctxteng/flow/aggregator.h"
#include "app/ctxteng/flow/context_report.h"
#include "app/ctxteng/flow/flow_statistics.h"
#include "app/ctxteng/flow/pace.h"
#include "app/ctxteng/guest/guest_table.h"
#include "bench/flow/cases.h"
#include "platform/upm/upm_service.h"
#include "proto/context/agent_config.pb.h"
#include "proto/context/pace.pb.h"

namespace zem::bench {
namespace {

using Ctxt::ConnInfo;
using Ctxt::PaceClient::FlowQueues;
using SteadyClock = std::chrono::steady_clock;

constexpr int kGuests = 200;
constexpr int kProcesses = 50;
constexpr int kQueue = 1000;
constexpr int kBatches = 1000;
constexpr int kReports = 40;

std::string GuestId(int number) {
  char text[37];
  std::snprintf(text, sizeof(text), "50291122-3344-5566-7788-%012d", number);
  return text;
}

std::shared_ptr<const ConnInfo> Connection(int guest, int process) {
  auto connection = std::make_shared<ConnInfo>();
  connection->vc_uuid = GuestId(guest);
  connection->nc_vc_uuid = "50 29 11 22 33 44 55 66-77 88 99 aa bb cc dd 01";
  connection->os_type = Ctxt::kWindows;
  connection->src_ip = "10.20.30.40";
  connection->dest_ip = "192.168.100.200";
  connection->dest_port = 443;
  connection->conn_type = Ctxt::CONN_TYPE_LISTEN_START;
  connection->timestamp = 1700000000000;
  connection->process_hash = std::string(64, 'a');
  connection->process_name = "C:\\Program Files\\Vendor\\service" + std::to_string(process) + ".exe";
  connection->cmdline = connection->process_name + " -k netsvcs -p -s Schedule";
  connection->process_dfw_key = 1000000 + static_cast<uint64_t>(process);
  connection->user_dfw_key = "S-1-5-21-1004336348-1177238915-682003330-512";
  connection->sid = connection->user_dfw_key;
  connection->username = "administrator";
  connection->domainname = "example.local";
  connection->group_keys = {"S-1-5-32-544", "S-1-5-32-545"};
  return connection;
}

double Nanoseconds(SteadyClock::duration duration, double count) {
  return std::chrono::duration<double, std::nano>(duration).count() / count;
}

// Tells the client once what the manager wants.
class Profiles final : public upm::UPMService {
 public:
  Profiles() : UPMService(nullptr) {}
  void Register(uint32_t, std::vector<uint32_t>, upm::ProfileCallback callback) override {
    orlane::zem::context::ContextHostConfigMsg config;
    config.set_enabled_collection(true);
    config.add_topic()->set_type(2);
    config.mutable_topic(0)->set_name("guests");
    callback({{upm::ENTITY_TRANSPORT_NODE, "node", {{8, "", config.SerializeAsString()}}, {}}}, true);
  }
};

void Fill(FlowQueues& queues, const std::vector<std::shared_ptr<const ConnInfo>>& connections) {
  for (const auto& connection : connections) {
    if (queues.connections.TryPush(connection) != Ctxt::PaceClient::QueuePush::kDone) {
      throw std::runtime_error("the queue is too small");
    }
  }
}

}  // namespace

void MeasureEvents(int percent) {
  const int batches = std::max(3, kBatches * percent / 100);
  const auto connection = Connection(1, 1);
  Ctxt::GuestTable guests;
  auto vm = std::make_shared<Ctxt::VmData>();
  vm->vc_uuid = connection->vc_uuid;
  Ctxt::PaceClient::KafkaDeliveries deliveries;
  double ours = 1e9;
  double peer = 1e9;
  for (int batch = 0; batch < batches; ++batch) {
    // A new client for each filling of its queue, whose aggregator empties it only once a minute.
    static const auto profiles = std::make_shared<Profiles>();
    const auto client = std::make_shared<Ctxt::PaceClient::Pace>(guests, nullptr, deliveries);
    client->RegisterUpmMonitor(profiles);
    CtxtClientParam param;
    param.networkEventQueueSize = kQueue;
    client->Initialize(param, nullptr);
    while (!client->collection_enabled()) std::this_thread::yield();
    auto begin = SteadyClock::now();
    for (int i = 0; i < kQueue; ++i) static_cast<void>(client->NetworkEventHandler(connection, vm));
    ours = std::min(ours, Nanoseconds(SteadyClock::now() - begin, kQueue));
    if (client->statistics().conn_events != kQueue) throw std::runtime_error("an event was lost");
    client->Shutdown();

    boost::lockfree::queue<ConnInfo*> queue(kQueue);
    begin = SteadyClock::now();
    for (int i = 0; i < kQueue; ++i) queue.push(new ConnInfo(*connection));
    peer = std::min(peer, Nanoseconds(SteadyClock::now() - begin, kQueue));
    for (ConnInfo* taken = nullptr; queue.pop(taken);) delete taken;
  }
  Print("event", "ns", ours, peer, false);
}

void MeasureReports(int percent) {
  const int reports = std::max(2, kReports * percent / 100);
  std::vector<std::shared_ptr<const ConnInfo>> connections;
  for (int guest = 1; guest <= kGuests; ++guest) {
    for (int process = 0; process < kProcesses; ++process) connections.push_back(Connection(guest, process));
  }
  FlowQueues queues(kGuests * kProcesses, 1, 1);
  Ctxt::PaceClient::FlowStatistics statistics;
  Ctxt::PaceClient::Aggregator aggregator(statistics);
  std::string bytes;
  double ours = 1e12;
  double build = 1e12;
  double peer = 1e12;
  Ctxt::PaceClient::ReportBuilder builder;
  const auto report = [&](const auto& send) { builder.Build(aggregator.guests(), {1, 2}, send); };
  for (int i = 0; i < reports; ++i) {
    Fill(queues, connections);
    const auto begin = SteadyClock::now();
    aggregator.Drain(queues);
    const auto drained = SteadyClock::now();
    report([&](const orlane::zem::pace::PaceContextInfoMsg& msg) {
      bytes.resize(msg.ByteSizeLong());
      msg.SerializeToArray(bytes.data(), static_cast<int>(bytes.size()));
    });
    const auto end = SteadyClock::now();
    ours = std::min(ours, std::chrono::duration<double, std::micro>(end - begin).count());
    build = std::min(build, std::chrono::duration<double, std::micro>(end - drained).count());
    std::vector<orlane::zem::pace::PaceContextInfoMsg> finished;
    report([&](const orlane::zem::pace::PaceContextInfoMsg& msg) { finished.push_back(msg); });
    const auto peer_begin = SteadyClock::now();
    for (const auto& msg : finished) {
      bytes.resize(msg.ByteSizeLong());
      msg.SerializeToArray(bytes.data(), static_cast<int>(bytes.size()));
    }
    peer = std::min(peer, std::chrono::duration<double, std::micro>(SteadyClock::now() - peer_begin).count());
    aggregator.Clear();
  }
  Print("report-of-200-guests", "us", ours, peer, false);
  Print("report-without-draining", "us", build, peer, false);
}

}  // namespace zem::bench
