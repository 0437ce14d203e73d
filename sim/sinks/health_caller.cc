#include "sim/sinks/health_caller.h"

#include <memory>
#include <optional>

#include "platform/provider/provider.h"
#include "platform/rpc/client.h"
#include "platform/rpc/stub_factory.h"
#include "platform/rpc/transport.h"
#include "proto/daemon/daemon.rpc.h"

namespace zem::sim {
namespace {

constexpr const char* kEndpoint = "tcp://127.0.0.1:4098";
constexpr int64_t kReachMs = 2000;
constexpr auto kAnswer = std::chrono::seconds(2);

class Observer final : public rpc::CallObserver<daemon::EchoMsg> {
 public:
  // The stub is kept for as long as the call runs, because its channel closes with it.
  Observer(daemon::DaemonHealth::Stub stub, std::function<void(HealthEcho)> done)
      : stub_(std::move(stub)), done_(std::move(done)) {}

  void Next(const daemon::EchoMsg& message) override { answer_.text = message.text(); }
  void CallStatus(const rpc::Status& status) override {
    const std::unique_ptr<Observer> self(this);
    answer_.status = status.code();
    done_(std::move(answer_));
  }

 private:
  const daemon::DaemonHealth::Stub stub_;
  const std::function<void(HealthEcho)> done_;
  HealthEcho answer_;
};

}  // namespace

void CallHealthEcho(AsioZemProvider& provider, const std::string& text,
                    std::function<void(HealthEcho)> done) {
  using Stub = daemon::DaemonHealth::Stub;
  rpc::StubRequest request;
  request.source_id = "health-check";
  request.target = net::Endpoint(kEndpoint);
  request.policy = RetryPolicy(kReachMs, kReachMs, 1.0, 0);
  request.timeout_ms = kReachMs;
  provider.rpc().stubs().create<Stub>(
      std::move(request),
      [text, done = std::move(done)](std::optional<Stub> stub, const rpc::Status& status) {
        if (!stub) return done({status.code(), {}});
        rpc::ClientContext context;
        context.set_timeout(kAnswer);
        daemon::EchoMsg message;
        message.set_text(text);
        stub->Echo(context, message, new Observer(*stub, done));
      });
}

}  // namespace zem::sim
