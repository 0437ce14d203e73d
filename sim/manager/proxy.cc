#include "sim/manager/proxy.h"

#include <algorithm>

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

class Proxy::InfoService final : public ApplProxyInfoService::Service {
 public:
  void Subscribe(rpc::ServerContext&, const ApplProxyInfoReqMsg&,
                 rpc::CallHandle<ApplProxyInfoRspMsg> call) override {
    std::lock_guard lock(mutex_);
    if (refuse_) {
      call.Close(*refuse_, "refused by the scenario");
      return;
    }
    if (info_) call.Write(*info_);
    subscribers_.push_back(std::move(call));
  }

  void Publish(const ApplProxyInfoRspMsg& info) {
    std::lock_guard lock(mutex_);
    info_ = info;
    std::erase_if(subscribers_, [&info](auto& call) { return !call.Write(info); });
  }

  void End(int status) {
    std::vector<rpc::CallHandle<ApplProxyInfoRspMsg>> ended;
    {
      std::lock_guard lock(mutex_);
      ended.swap(subscribers_);
    }
    for (auto& call : ended) call.Close(status, "ended by the scenario");
  }

  void Refuse(std::optional<int> status) {
    std::lock_guard lock(mutex_);
    refuse_ = status;
  }

  size_t subscribers() const {
    std::lock_guard lock(mutex_);
    return static_cast<size_t>(std::count_if(subscribers_.begin(), subscribers_.end(),
                                             [](const auto& call) { return !call.FinalStatus(); }));
  }

 private:
  mutable std::mutex mutex_;  // guards all below
  std::optional<ApplProxyInfoRspMsg> info_;
  std::optional<int> refuse_;
  std::vector<rpc::CallHandle<ApplProxyInfoRspMsg>> subscribers_;
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
