#include "sim/manager/aph.h"

#include "platform/rpc/server.h"
#include "platform/rpc/transport.h"

namespace zem::sim {
namespace {

constexpr int64_t kStubTimeoutMs = 5000;

RetryPolicy Steady() { return RetryPolicy(500, 500, 1.0, -1); }

template <class Message>
class CallObserver final : public rpc::CallObserver<Message> {
 public:
  explicit CallObserver(std::function<void(HostAnswer)> done) : done_(std::move(done)) {}

  void Next(const Message& message) override {
    if constexpr (std::is_same_v<Message, GenericUnifiedMsg>) answer_.message = message;
  }
  void CallStatus(const rpc::Status& status) override {
    const std::unique_ptr<CallObserver> self(this);
    answer_.status = status;
    done_(std::move(answer_));
  }

 private:
  std::function<void(HostAnswer)> done_;
  HostAnswer answer_;
};

}  // namespace

Aph::Aph(std::string id, const std::string& forwarding_endpoint,
         const std::function<std::unique_ptr<MpSink>(Aph*)>& make_sink)
    : id_(std::move(id)), sink_(make_sink(this)), connections_(provider_.rpc()) {
  rpc::ServerBuilder builder(provider_.rpc());
  builder.AddLocalEndpointId(id_);
  for (const ManagerVertical& vertical : ManagerVerticals()) {
    builder.RegisterService(vertical.make_service(vertical.name, sink_.get()));
  }
  server_ = builder.BuildStarted();
  rpc::ConnectionParams params;
  params.retry = Steady();
  params.reconnect = rpc::ReconnectPolicy(rpc::ReconnectPolicy::kAlways, Steady());
  params.options.rpc = rpc::RpcConnectionOptions::Gateway(true, true);
  params.on_connected = [this](const rpc::ConnectionInfo&) {
    std::lock_guard lock(mutex_);
    connected_ = true;
  };
  params.on_closed = [this](rpc::CloseReason) {
    std::lock_guard lock(mutex_);
    connected_ = false;
    stubs_.clear();
  };
  connections_.RequestConnection(net::Endpoint(forwarding_endpoint), std::move(params));
  provider_.RunAsync(1);
}

Aph::~Aph() { provider_.StopAndWait(true); }

bool Aph::connected() const {
  std::lock_guard lock(mutex_);
  return connected_;
}

void Aph::Call(const ManagerVertical& vertical, const GenericUnifiedMsg& message, bool publish,
               Duration timeout, std::function<void(HostAnswer)> done) {
  Pending pending{message, publish, timeout, std::move(done)};
  std::shared_ptr<HostStub> stub;
  {
    std::lock_guard lock(mutex_);
    const auto found = stubs_.find(vertical.name);
    if (found != stubs_.end()) stub = found->second;
  }
  if (stub) {
    Start(stub, std::move(pending));
    return;
  }
  rpc::StubRequest request;
  request.source_id = id_;
  request.target = net::Endpoint(std::string("zem://") + vertical.name);
  request.policy = RetryPolicy(kStubTimeoutMs, kStubTimeoutMs, 1.0, 0);
  request.timeout_ms = kStubTimeoutMs;
  const std::string name = vertical.name;
  vertical.make_stub(
      provider_.rpc().stubs(), std::move(request),
      [this, name, pending = std::make_shared<Pending>(std::move(pending))](
          const std::shared_ptr<HostStub>& made, const rpc::Status& status) {
        if (!made) {
          pending->done({rpc::Status(status.code(), "the host cannot be reached"), {}});
          return;
        }
        std::shared_ptr<HostStub> first;
        {
          // Another call may have had the same thought: its stub stays, since calls are on it.
          std::lock_guard lock(mutex_);
          first = stubs_.try_emplace(name, made).first->second;
        }
        if (first != made) {
          Start(first, std::move(*pending));
          return;
        }
        made->SetOnStreamDown([this, name, weak = std::weak_ptr<HostStub>(made)](rpc::CloseReason) {
          std::lock_guard lock(mutex_);
          const auto found = stubs_.find(name);
          if (found != stubs_.end() && found->second == weak.lock()) stubs_.erase(found);
        });
        Start(made, std::move(*pending));
      });
}

void Aph::Start(const std::shared_ptr<HostStub>& stub, Pending pending) {
  rpc::ClientContext context(id_);
  context.set_timeout(pending.timeout);
  if (pending.publish) {
    stub->Publish(context, pending.message, new CallObserver<orlane::zem::VoidMsg>(std::move(pending.done)));
  } else {
    stub->Request(context, pending.message, new CallObserver<GenericUnifiedMsg>(std::move(pending.done)));
  }
}

}  // namespace zem::sim
