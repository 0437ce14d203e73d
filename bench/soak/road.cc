#include <algorithm>
#include <cstdio>
#include <future>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/soak/agent_side.h"
#include "bench/soak/cases.h"
#include "bench/soak/measures.h"
#include "framework/log/logger.h"
#include "mpaclient/verticals.h"
#include "platform/core/thread.h"
#include "platform/core/uuid.h"
#include "platform/provider/timer.h"
#include "platform/rpc/server.h"
#include "platform/rpc/transport.h"
#include "proto/lldp/lldp_vertical.rpc.h"
#include "proto/messaging/l2_vertical.rpc.h"
#include "sim/manager/aph.h"
#include "sim/manager/proxy.h"

// A request of the manager and its answer, one at a time, through the proxy: to a vertical that answers in
// its callback, and to a bare service that echoes it.  Both use the same sockets and the same library, so the
// difference is the agent's own work.

namespace zem::bench {
namespace {

using sim::GenericUnifiedMsg;

constexpr int kWarmCalls = 500;
constexpr int kCalls = 2000;
constexpr int kRounds = 10;
constexpr size_t kPayload = 256;
constexpr std::chrono::seconds kReadyWithin{20};

template <class Service>
class EchoOf final : public Service::Service {
 public:
  void MsgHandler(rpc::ServerContext&, const GenericUnifiedMsg&,
                  rpc::CallHandle<orlane::zem::VoidMsg> call) override {
    call.Finish(orlane::zem::VoidMsg());
  }
  void RpcMsgHandler(rpc::ServerContext&, const GenericUnifiedMsg& request,
                     rpc::CallHandle<GenericUnifiedMsg> call) override {
    call.Finish(request);
  }
};

/// A host without an agent: its services echo what they receive.
class BareHost {
 public:
  explicit BareHost(const std::string& forwarding_endpoint) : connections_(provider_.rpc()) {
    rpc::ServerBuilder builder(provider_.rpc());
    builder.AddLocalEndpointId("bare");
    builder.RegisterService(std::make_shared<EchoOf<orlane::zem::lldp::LldpHostService>>());
    builder.RegisterService(std::make_shared<EchoOf<orlane::zem::messaging::L2HostService>>());
    server_ = builder.BuildStarted();
    rpc::ConnectionParams params;
    params.options.rpc = rpc::RpcConnectionOptions::Gateway(true, true);
    connections_.RequestConnection(net::Endpoint(forwarding_endpoint), std::move(params));
    provider_.RunAsync(1);
  }
  ~BareHost() { provider_.StopAndWait(true); }

 private:
  AsioZemProvider provider_;
  rpc::ConnectionManager connections_;
  std::unique_ptr<rpc::Server> server_;
};

// The other direction is not measured.
class NoSink final : public sim::MpSink {
 public:
  void OnPublish(const std::string&, const std::string&, const GenericUnifiedMsg&) override {}
  void OnRequest(const std::string&, const std::string&, const GenericUnifiedMsg&,
                 rpc::CallHandle<GenericUnifiedMsg>) override {}
};

// Makes one call after another; each starts when the one before ends.
class Loop {
 public:
  Loop(sim::Aph& aph, const sim::ManagerVertical& vertical, GenericUnifiedMsg message, int calls)
      : aph_(aph), vertical_(vertical), message_(std::move(message)), calls_(calls) {
    microseconds_.reserve(static_cast<size_t>(calls));
  }
  std::vector<double> Run() {
    aph_.provider().dispatcher().Post([this] { Next(); });
    finished_.get_future().get();
    return std::move(microseconds_);
  }

 private:
  void Next() {
    if (microseconds_.size() == static_cast<size_t>(calls_)) {
      finished_.set_value();
      return;
    }
    message_.mutable_ctrl_header()->set_correlation_id(std::to_string(microseconds_.size()));
    begun_ = Now();
    aph_.Call(vertical_, message_, false, std::chrono::seconds(5), [this](const sim::HostAnswer& answer) {
      microseconds_.push_back(std::chrono::duration<double, std::micro>(Now() - begun_).count());
      if (!answer.status.ok() || answer.message.payload().size() < kPayload) {
        finished_.set_exception(std::make_exception_ptr(std::runtime_error(
            std::string("a call to ") + vertical_.name + " ended with " + answer.status.ToString())));
        return;
      }
      Next();
    });
  }

  sim::Aph& aph_;
  const sim::ManagerVertical& vertical_;
  GenericUnifiedMsg message_;
  const int calls_;
  Instant begun_;
  std::vector<double> microseconds_;
  std::promise<void> finished_;
};

struct Times {
  double median = std::numeric_limits<double>::infinity();
  double p99 = median;
};

// Merges a round into the best figures so far, because other work on the machine can only make figures worse.
void Round(sim::Aph& aph, const sim::ManagerVertical& vertical, const GenericUnifiedMsg& message,
           Times* best) {
  const auto times = Loop(aph, vertical, message, kCalls).Run();
  best->median = std::min(best->median, Quantile(times, 0.5));
  best->p99 = std::min(best->p99, Quantile(times, 0.99));
}

GenericUnifiedMsg RequestFor(const sim::ManagerVertical& vertical, const char* member, const char* field) {
  const std::unique_ptr<google::protobuf::Message> unified(vertical.host_prototype().New());
  const auto* const place = sim::FindMember(*unified, member);
  auto* const inner = unified->GetReflection()->MutableMessage(unified.get(), place);
  inner->GetReflection()->SetString(inner, inner->GetDescriptor()->FindFieldByName(field),
                                    std::string(kPayload, 'x'));
  sim::SetType(unified.get(), sim::WireTypeName(*place->message_type()));
  GenericUnifiedMsg message;
  message.set_payload(unified->SerializeAsString());
  SetUuid(RandomUuid(), message.mutable_cookies()->mutable_tracking_id());
  return message;
}

}  // namespace

bool RunRoad() {
  const Endpoints endpoints = FreeEndpoints();
  sim::Proxy proxy(endpoints.info, endpoints.forwarding);
  sim::ProxyInfo info;
  info.transport_node_id = EarlyTransportNode();
  info.aphs.push_back({kAphs[0], true});
  proxy.Publish(info);
  sim::Aph aph(kAphs[0], endpoints.forwarding, [](sim::Aph*) { return std::make_unique<NoSink>(); });
  const BareHost bare(endpoints.forwarding);
  const std::vector<const Vertical*> verticals = {&GetVertical(VerticalId::kLldp),
                                                  &GetVertical(VerticalId::kSwitching)};
  const AgentSide agent(endpoints, verticals, [](const Vertical& vertical, const rmqClientMessage& message) {
    if (message.msg_type != kRmqMpRpcRequest) return;
    const BusHeader header = BusHeader::Of(message).value_or(BusHeader());
    const std::string payload(reinterpret_cast<const char*>(message.payload), message.payload_len);
    if (!Send(vertical, kRmqClientRpcResponse, header.type_id, header.correlation_id, payload)) {
      std::fprintf(stderr, "bench_soak: an answer of %s found no call\n", vertical.name);
    }
  });
  const Instant end = Now() + kReadyWithin;
  while (proxy.PeerIds().size() < verticals.size() + 2 && Now() < end)
    SleepFor(std::chrono::milliseconds(20));

  struct Row {
    const char* name;
    const char* vertical;
    const char* member;
    const char* field;
  };
  constexpr Row kRows[] = {{"raw", "LldpVertical", "RawPayloadMsg", "payload"},
                           {"parsed", "SwitchingVertical", "ChecksumMsg", "checksum"}};
  struct Level {
    const char* name;
    LibraryLogLevel level;
  };
  constexpr Level kLevels[] = {{"info", kLogInfo}, {"debug", kLogDebug}};
  const uint32_t level_before = Logger::logLevel;
  for (const Row& row : kRows) {
    const sim::ManagerVertical& known = *sim::FindManagerVertical(row.vertical);
    sim::ManagerVertical echo = known;
    echo.name = "bare";
    const GenericUnifiedMsg message = RequestFor(known, row.member, row.field);
    for (const Level& level : kLevels) {
      Logger::logLevel = static_cast<uint32_t>(level.level);
      Times ours;
      Times peer;
      Loop(aph, echo, message, kWarmCalls).Run();
      Loop(aph, known, message, kWarmCalls).Run();
      const uint64_t lines = LogCounter::lines();
      // The two sides alternate, so that both meet the same load.
      for (int round = 0; round < kRounds; ++round) {
        Round(aph, echo, message, &peer);
        Round(aph, known, message, &ours);
      }
      const double told = static_cast<double>(LogCounter::lines() - lines) / (kRounds * kCalls);
      const std::string name = std::string(row.name) + "-" + level.name;
      PrintLine("road", name, "median-us", ours.median, peer.median);
      PrintLine("road", name, "p99-us", ours.p99, peer.p99);
      PrintLine("road", name, "log-lines-per-request", told);
    }
  }
  Logger::logLevel = level_before;
  return true;
}

}  // namespace zem::bench
