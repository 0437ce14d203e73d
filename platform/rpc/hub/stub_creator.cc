#include "platform/rpc/hub/stub_creator.h"

#include <atomic>
#include <mutex>
#include <string>
#include <utility>

#include "platform/core/lib_log.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/rpc/hub/outgoing_connections.h"
#include "platform/rpc/hub/stop_hooks.h"

namespace zem::rpc {
namespace {

// The service's own name, without its package.
std::string ShortName(const ServiceInfo& service) {
  const std::string full = service.name;
  return full.substr(full.rfind('.') + 1);
}

std::string TargetName(const net::Endpoint& target) {
  return target.kind() == net::Endpoint::Kind::kId ? target.id() : target.text();
}

// The channel as stubs share it.
class StubChannel final : public Channel {
 public:
  explicit StubChannel(std::shared_ptr<ClientChannel> state) : state_(std::move(state)) {}
  ~StubChannel() override { state_->Drop(); }

  void SetOnDown(std::function<void(CloseReason)> hook) override { state_->SetOnDown(std::move(hook)); }
  const std::string& source_id() const override { return state_->source(); }
  const std::string& target() const override { return state_->target(); }
  bool down() const override { return state_->down(); }
  void Start(const std::shared_ptr<ClientCall>& call, uint16_t method, const ClientContext& context,
             Requests requests, const google::protobuf::MessageLite* first) override {
    state_->Start(call, method, context, requests, first);
  }

 private:
  const std::shared_ptr<ClientChannel> state_;
};

class StubCreator final : public StubCreatorBase, public std::enable_shared_from_this<StubCreator> {
 public:
  StubCreator(AsioZemProvider& provider, OutgoingConnections& outgoing, StopHooks& stop_hooks,
              const ServiceInfo& service, StubRequest request, StubFactory::ChannelDone done)
      : provider_(provider),
        outgoing_(outgoing),
        stop_hooks_(stop_hooks),
        service_(service),
        request_(std::move(request)),
        name_("RpcStubCreator[" + ShortName(service) + ", " + request_.source_id + ", " +
              TargetName(request_.target) + "]"),
        done_(std::move(done)) {}

  const std::string& name() const override { return name_; }

  void Start() {
    const uint64_t hook =
        stop_hooks_.Add([self = shared_from_this()] { self->Finish(nullptr, "the transport stopped"); });
    {
      std::lock_guard lock(mutex_);
      stop_hook_ = hook;
      if (request_.timeout_ms > 0) {
        timeout_ =
            provider_.timers().Schedule(std::chrono::milliseconds(request_.timeout_ms),
                                        [self = shared_from_this()] { self->Finish(nullptr, "timed out"); });
      }
    }
    if (hook == 0) {
      Finish(nullptr, "the transport stopped");
    } else {
      Try();
    }
  }

  void Cancel() override {
    cancelled_ = true;
    static_cast<void>(TakeDone());
  }

 private:
  void Try() {
    outgoing_.OpenChannel(
        request_.source_id, request_.target, service_,
        [self = shared_from_this()](std::shared_ptr<ClientChannel> channel, const Status& status) {
          self->OnResult(std::move(channel), status);
        });
  }

  void OnResult(std::shared_ptr<ClientChannel> opened, const Status& status) {
    if (opened) {
      auto channel = std::make_shared<StubChannel>(std::move(opened));  // too late for us: its end closes it
      Finish(std::move(channel), "");
      return;
    }
    int64_t delay_ms = -1;
    {
      std::lock_guard lock(mutex_);
      if (!done_) return;
      delay_ms = request_.policy.NextDelay();
      ZEM_LIB_LOG(Library::kRpc, kLogDebug, "%s: %s, next try in %ld ms", name_.c_str(),
                  status.ToString().c_str(), static_cast<long>(delay_ms));
      if (delay_ms >= 0) {
        retry_ =
            provider_.timers().Schedule(std::chrono::milliseconds(delay_ms), [self = shared_from_this()] {
              {
                std::lock_guard again(self->mutex_);
                if (!self->done_) return;
              }
              self->Try();
            });
      }
    }
    if (delay_ms < 0) Finish(nullptr, status.ToString());
  }

  void Finish(std::shared_ptr<Channel> channel, const std::string& why) {
    auto done = TakeDone();
    if (!done) return;
    const Status status = channel ? Status() : Status(StatusCode::kFailed, why);
    if (!channel) ZEM_LIB_LOG(Library::kRpc, kLogInfo, "%s: %s", name_.c_str(), why.c_str());
    provider_.dispatcher().Post(
        [self = shared_from_this(), done = std::move(done), channel = std::move(channel), status]() mutable {
          if (!self->cancelled_) done(std::move(channel), status);
        });
  }

  StubFactory::ChannelDone TakeDone() {
    StubFactory::ChannelDone done;
    std::shared_ptr<Timer> timeout;
    std::shared_ptr<Timer> retry;
    uint64_t hook = 0;
    {
      std::lock_guard lock(mutex_);
      done.swap(done_);
      timeout.swap(timeout_);
      retry.swap(retry_);
      hook = std::exchange(stop_hook_, 0);
    }
    if (timeout) timeout->Cancel();
    if (retry) retry->Cancel();
    if (hook != 0) stop_hooks_.Remove(hook);
    return done;
  }

  AsioZemProvider& provider_;
  OutgoingConnections& outgoing_;
  StopHooks& stop_hooks_;
  const ServiceInfo& service_;
  StubRequest request_;  // its policy is guarded by mutex_
  const std::string name_;
  std::atomic<bool> cancelled_{false};
  std::mutex mutex_;  // guards all below
  StubFactory::ChannelDone done_;
  std::shared_ptr<Timer> timeout_;
  std::shared_ptr<Timer> retry_;
  uint64_t stop_hook_ = 0;
};

}  // namespace

std::shared_ptr<StubCreatorBase> StubFactoryImpl::CreateChannel(const ServiceInfo& service,
                                                                StubRequest request, ChannelDone done) {
  auto creator = std::make_shared<StubCreator>(provider_, outgoing_, stop_hooks_, service, std::move(request),
                                               std::move(done));
  creator->Start();
  return creator;
}

}  // namespace zem::rpc
