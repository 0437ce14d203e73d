#include "sim/manager/proxy.h"

#include "platform/core/uuid.h"
#include "platform/rpc/server.h"
#include "platform/rpc/transport.h"
#include "proto/messaging/messaging.rpc.h"

namespace zem::sim {
namespace {

using orlane::zem::messaging::ApplProxyInfoReqMsg;
using orlane::zem::messaging::ApplProxyInfoRspMsg;
using orlane::zem::messaging::ApplProxyInfoService;

ApplProxyInfoRspMsg ToMessage(const ProxyInfo& info) {
  ApplProxyInfoRspMsg message;
  if (info.transport_node_id) {
    if (const auto uuid = ParseUuid(*info.transport_node_id))
      SetUuid(*uuid, message.mutable_transport_node_id());
  }
  if (info.version) {
    message.mutable_product_version()->set_major(info.version->first);
    message.mutable_product_version()->set_minor(info.version->second);
  }
  for (const ProxyInfo::Entry& entry : info.aphs) {
    auto* const aph = message.add_aph();
    if (entry.id) {
      if (const auto uuid = ParseUuid(*entry.id)) SetUuid(*uuid, aph->mutable_id());
    }
    if (entry.master) aph->set_master(*entry.master);
  }
  return message;
}

}  // namespace

// A subscription is removed when it ends, because its handle keeps its connection alive, and with that this
// service.
class Proxy::InfoService final : public ApplProxyInfoService::Service,
                                 public std::enable_shared_from_this<InfoService> {
 public:
  void Subscribe(rpc::ServerContext& context, const ApplProxyInfoReqMsg&,
                 rpc::CallHandle<ApplProxyInfoRspMsg> call) override {
    std::unique_lock lock(mutex_);
    if (refuse_) {
      call.Close(*refuse_, "refused by the scenario");
      return;
    }
    if (info_) call.Write(*info_);
    const uint64_t number = ++last_number_;
    subscribers_.emplace(number, std::move(call));
    lock.unlock();
    context.SetOnClose([weak = weak_from_this(), number](const rpc::Status&) {
      if (const auto self = weak.lock()) self->Forget(number);
    });
  }

  void Publish(const ApplProxyInfoRspMsg& info) {
    std::lock_guard lock(mutex_);
    info_ = info;
    for (auto& [number, call] : subscribers_) {
      // A subscriber that reads too slowly for the list loses its subscription and has to subscribe again.
      if (!call.Write(info)) call.Cancel();
    }
  }

  void End(int status) {
    Subscribers ended;
    {
      std::lock_guard lock(mutex_);
      ended.swap(subscribers_);
    }
    for (auto& [number, call] : ended) call.Close(status, "ended by the scenario");
  }

  void Refuse(std::optional<int> status) {
    std::lock_guard lock(mutex_);
    refuse_ = status;
  }

  size_t subscribers() const {
    std::lock_guard lock(mutex_);
    return subscribers_.size();
  }

 private:
  using Subscribers = std::map<uint64_t, rpc::CallHandle<ApplProxyInfoRspMsg>>;

  void Forget(uint64_t number) {
    Subscribers::node_type dropped;  // destroyed after the lock is released
    std::lock_guard lock(mutex_);
    dropped = subscribers_.extract(number);
  }

  mutable std::mutex mutex_;  // guards all below
  std::optional<ApplProxyInfoRspMsg> info_;
  std::optional<int> refuse_;
  uint64_t last_number_ = 0;
  Subscribers subscribers_;
};

Proxy::Proxy(const std::string& info_endpoint, const std::string& forwarding_endpoint)
    : forwarding_endpoint_(forwarding_endpoint), info_service_(std::make_shared<InfoService>()) {
  provider_.rpc().EnableForwarding();
  provider_.rpc().SetConnectionHooks(
      [this](const rpc::ConnectionInfo& info) {
        std::lock_guard lock(mutex_);
        peers_[info.text] = info.peer_ids;
      },
      [this](const rpc::ConnectionInfo& info, rpc::CloseReason) {
        std::lock_guard lock(mutex_);
        peers_.erase(info.text);
      });
  rpc::ServerBuilder info_builder(provider_.rpc());
  info_builder.AddListeningEndpoint(net::Endpoint(info_endpoint));
  info_builder.RegisterService(info_service_);
  info_server_ = info_builder.BuildStarted();

  SetForwarding(true);
  provider_.RunAsync(1);
}

Proxy::~Proxy() { provider_.StopAndWait(true); }

void Proxy::SetForwarding(bool on) {
  forwarding_server_.reset();
  if (!on) return;
  rpc::ConnectionOptions options;
  options.rpc = rpc::RpcConnectionOptions::Gateway(true, false);
  rpc::ServerBuilder builder(provider_.rpc());
  builder.AddListeningEndpoint(net::Endpoint(forwarding_endpoint_), options);
  forwarding_server_ = builder.BuildStarted();
}

void Proxy::Publish(const ProxyInfo& info) { info_service_->Publish(ToMessage(info)); }

void Proxy::EndSubscriptions(int status) { info_service_->End(status); }

void Proxy::RefuseSubscriptions(std::optional<int> status) { info_service_->Refuse(status); }

size_t Proxy::subscribers() const { return info_service_->subscribers(); }

std::vector<std::string> Proxy::PeerIds() const {
  std::vector<std::string> ids;
  std::lock_guard lock(mutex_);
  for (const auto& [peer, announced] : peers_) ids.insert(ids.end(), announced.begin(), announced.end());
  return ids;
}

}  // namespace zem::sim
