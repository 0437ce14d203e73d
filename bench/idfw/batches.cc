// Acknowledged batches through the agent's channel, beside a bare loop that makes the same call with bytes
// that are ready, over the same proxy.

#include <cstdio>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>

#include "app/ctxteng/channel/ctxt_channel.h"
#include "app/ctxteng/channel/mpa_channel.h"
#include "app/ctxteng/idfw/login_logoff_event.h"
#include "app/ctxteng/idfw/login_logoff_info_cache.h"
#include "app/ctxteng/idfw/login_logoff_info_messenger.h"
#include "app/ctxteng/idfw/login_logoff_signal.h"
#include "bench/idfw/cases.h"
#include "bench/soak/agent_side.h"
#include "bench/soak/measures.h"
#include "mpaclient/client_registry.h"
#include "mpaclient/proxy/tn_proxy_client_common.h"
#include "platform/core/thread.h"
#include "platform/core/uuid.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/rpc/transport.h"
#include "proto/context/idfw.pb.h"
#include "proto/context/idfw_vertical.rpc.h"
#include "sim/manager/aph.h"
#include "sim/manager/proxy.h"

namespace zem::bench {
namespace {

namespace idfw = orlane::zem::context::idfw;
using sim::GenericUnifiedMsg;

constexpr int kRounds = 10;
constexpr uint32_t kEvents = 1000;
constexpr std::chrono::seconds kPatience{20};

// Acknowledges every batch.
class AckSink final : public sim::MpSink {
 public:
  AckSink() {
    idfw::LoginLogoffEventAckMsg ack;
    ack.set_status_code(0);
    idfw::IdfwHostUnifiedMsg unified;
    unified.set_type("com.orlane.zem.context.idfw.LoginLogoffEventAckMsg");
    unified.mutable_raw_payload()->set_payload(ack.SerializeAsString());
    payload_ = unified.SerializeAsString();
  }
  void OnPublish(const std::string&, const std::string&, const GenericUnifiedMsg&) override {}
  void OnRequest(const std::string&, const std::string&, const GenericUnifiedMsg& message,
                 rpc::CallHandle<GenericUnifiedMsg> call) override {
    GenericUnifiedMsg answer;
    *answer.mutable_ctrl_header() = message.ctrl_header();
    *answer.mutable_cookies() = message.cookies();
    answer.set_payload(payload_);
    call.Finish(answer);
  }

 private:
  std::string payload_;
};

class Answered final : public rpc::CallObserver<GenericUnifiedMsg> {
 public:
  explicit Answered(std::promise<bool>* done) : done_(done) {}
  void Next(const GenericUnifiedMsg& message) override { answered_ = !message.payload().empty(); }
  void CallStatus(const rpc::Status& status) override {
    const std::unique_ptr<Answered> self(this);
    done_->set_value(status.ok() && answered_);
  }

 private:
  std::promise<bool>* const done_;
  bool answered_ = false;
};

/// A host without an agent that calls the manager's service.
class BareHost {
 public:
  using Stub = idfw::IdfwMpService::Stub;

  explicit BareHost(const std::string& forwarding_endpoint) : connections_(provider_.rpc()) {
    rpc::ConnectionParams params;
    params.options.rpc = rpc::RpcConnectionOptions::Gateway(true, true);
    connections_.RequestConnection(net::Endpoint(forwarding_endpoint), std::move(params));
    provider_.RunAsync(1);
    std::promise<std::unique_ptr<Stub>> made;
    rpc::StubRequest request;
    request.source_id = "bare";
    request.target = net::Endpoint(std::string("zem://") + kAphs[0]);
    request.policy = RetryPolicy(100, 100, 1.0, 100);
    provider_.rpc().stubs().create<Stub>(
        std::move(request), [&made](std::optional<Stub> stub, const rpc::Status&) {
          made.set_value(stub ? std::make_unique<Stub>(std::move(*stub)) : nullptr);
        });
    stub_ = made.get_future().get();
    if (stub_ == nullptr) throw std::runtime_error("no stub for the bare calls");
  }
  ~BareHost() {
    stub_.reset();
    provider_.StopAndWait(true);
  }

  bool Call(const GenericUnifiedMsg& message) {
    std::promise<bool> done;
    provider_.dispatcher().Post(
        [&] { stub_->RpcMsgHandler(rpc::ClientContext("bare"), message, new Answered(&done)); });
    return done.get_future().get();
  }

 private:
  AsioZemProvider provider_;
  rpc::ConnectionManager connections_;
  std::unique_ptr<Stub> stub_;
};

using Logons = std::vector<std::unique_ptr<Ctxt::LoginLogoffInfo>>;

Logons MakeLogons() {
  Logons logons;
  for (uint32_t n = 0; n < kEvents; ++n) logons.push_back(Logon(n));
  return logons;
}

// The batch as plain code builds it.
GenericUnifiedMsg BuiltBatch(Logons logons) {
  idfw::LoginLogoffEventMsg batch;
  for (auto& logon : logons) {
    (void)Ctxt::FillLoginLogoffEvent(*logon, batch.add_login_logoff_event());
    logon.reset();
  }
  idfw::IdfwMpUnifiedMsg unified;
  unified.set_type("com.orlane.zem.context.idfw.LoginLogoffEventMsg");
  unified.mutable_raw_payload()->set_payload(batch.SerializeAsString());
  GenericUnifiedMsg message;
  message.set_payload(unified.SerializeAsString());
  message.mutable_ctrl_header()->set_correlation_id("0");
  SetUuid(RandomUuid(), message.mutable_cookies()->mutable_tracking_id());
  return message;
}

struct Cost {
  std::vector<double> us;
  double cpu = 0;
};

template <class Once>
void Measure(int times, Cost* cost, const Once& once) {
  const double cpu = CpuSeconds();
  for (int i = 0; i < times; ++i) {
    const Instant begin = Now();
    once();
    cost->us.push_back(std::chrono::duration<double, std::micro>(Now() - begin).count());
  }
  cost->cpu += CpuSeconds() - cpu;
}

}  // namespace

bool RunBatches(int batches) {
  const Endpoints endpoints = FreeEndpoints();
  sim::Proxy proxy(endpoints.info, endpoints.forwarding);
  sim::ProxyInfo info;
  info.transport_node_id = EarlyTransportNode();
  info.aphs.push_back({kAphs[0], true});
  proxy.Publish(info);
  const sim::Aph aph(kAphs[0], endpoints.forwarding, [](sim::Aph*) { return std::make_unique<AckSink>(); });
  BareHost bare(endpoints.forwarding);

  const AgentSide agent(endpoints, {}, {});
  AsioZemProvider provider;
  provider.RunAsync(1);
  Ctxt::MpaChannel link;
  Ctxt::CtxtChannel channel(link);
  channel.Initialize(provider);
  const auto signal = std::make_shared<Ctxt::LoginLogoffSignal>();
  const auto messenger = std::make_shared<Ctxt::LoginLogoffInfoMessenger>(channel, 10, signal);
  messenger->Connect();
  Ctxt::LoginLogoffInfoCache cache(kEvents, 100, signal);
  const auto fill = [&cache] {
    for (uint32_t n = 0; n < kEvents; ++n) cache.Add(Logon(n));
  };
  const Instant end = Now() + kPatience;
  fill();
  while (!messenger->SendNext(cache, true) && Now() < end) SleepFor(std::chrono::milliseconds(50));

  const GenericUnifiedMsg ready = BuiltBatch(MakeLogons());
  bool good = Now() < end;
  Cost ours;
  Cost peer;
  Cost building;
  // The two sides alternate, so that both meet the same load.
  for (int round = 0; good && round < kRounds; ++round) {
    Measure(batches, &peer, [&] { good &= bare.Call(ready); });
    for (int i = 0; i < batches; ++i) {
      Logons logons = MakeLogons();
      Measure(1, &building, [&] { good &= bare.Call(BuiltBatch(std::move(logons))); });
    }
    // The guests' threads fill the cache; that is measured elsewhere.
    for (int i = 0; i < batches; ++i) {
      fill();
      Measure(1, &ours, [&] { good &= messenger->SendNext(cache, true); });
    }
  }
  if (!good) std::printf("# a batch was not acknowledged\n");
  PrintLine("idfw", "batch-of-1000", "median-us", Quantile(ours.us, 0.5), Quantile(peer.us, 0.5));
  const double calls = kRounds * batches;
  PrintLine("idfw", "batch-of-1000", "cpu-us", ours.cpu * 1e6 / calls, peer.cpu * 1e6 / calls);
  PrintLine("idfw", "batch-of-1000-built", "median-us", Quantile(ours.us, 0.5), Quantile(building.us, 0.5));
  PrintLine("idfw", "batch-of-1000-built", "cpu-us", ours.cpu * 1e6 / calls, building.cpu * 1e6 / calls);
  channel.Shutdown();
  provider.StopAndWait(true);
  return good;
}

}  // namespace zem::bench
