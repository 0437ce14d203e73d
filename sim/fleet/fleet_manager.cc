#include "sim/fleet/fleet_manager.h"

#include <cstdio>

#include "platform/rpc/connection.h"
#include "platform/rpc/server.h"
#include "platform/rpc/transport.h"
#include "proto/messaging/appinit.pb.h"
#include "sim/manager/verticals.h"

namespace zem::fleet {
namespace {

constexpr uint32_t kVersionMajor = 4;
constexpr uint32_t kVersionMinor = 2;

RetryPolicy Steady() { return RetryPolicy(500, 500, 1.0, -1); }

std::string Id(int prefix, int number) {
  char text[40];
  std::snprintf(text, sizeof(text), "%08x-0000-4000-8000-%012x", prefix, number);
  return text;
}

}  // namespace

Load operator-(const Load& after, const Load& before) {
  return {after.handshakes - before.handshakes, after.requests - before.requests,
          after.publishes - before.publishes, after.connections - before.connections,
          after.bytes - before.bytes};
}

// One manager-side proxy with its connections to the proxies of all hosts.
class FleetManager::Aph final : public sim::MpSink {
 public:
  Aph(FleetManager& manager, std::string id)
      : manager_(manager), id_(std::move(id)), connections_(provider_.rpc()) {
    rpc::ServerBuilder builder(provider_.rpc());
    builder.AddLocalEndpointId(id_);
    for (const sim::ManagerVertical& vertical : sim::ManagerVerticals()) {
      builder.RegisterService(vertical.make_service(vertical.name, this));
    }
    server_ = builder.BuildStarted();
    for (int host = 0; host < manager_.hosts_; ++host) {
      rpc::ConnectionParams params;
      params.retry = Steady();
      params.reconnect = rpc::ReconnectPolicy(rpc::ReconnectPolicy::kAlways, Steady());
      params.options.rpc = rpc::RpcConnectionOptions::Gateway(true, true);
      params.on_connected = [this](const rpc::ConnectionInfo&) { ++manager_.connections_; };
      connections_.RequestConnection(net::Endpoint(ForwardingEndpoint(host)), std::move(params));
    }
    provider_.RunAsync(1);
  }
  ~Aph() override { provider_.StopAndWait(true); }

  const std::string& id() const { return id_; }

  void OnPublish(const std::string&, const std::string&, const sim::GenericUnifiedMsg& message) override {
    ++manager_.publishes_;
    manager_.bytes_ += message.payload().size();
  }

  void OnRequest(const std::string& vertical, const std::string&, const sim::GenericUnifiedMsg& message,
                 rpc::CallHandle<sim::GenericUnifiedMsg> call) override {
    manager_.bytes_ += message.payload().size();
    const sim::ManagerVertical& known = *sim::FindManagerVertical(vertical);
    const std::unique_ptr<google::protobuf::Message> asked(known.mp_prototype().New());
    sim::GenericUnifiedMsg answer;
    *answer.mutable_ctrl_header() = message.ctrl_header();
    *answer.mutable_cookies() = message.cookies();
    const google::protobuf::Message* const member =
        asked->ParseFromString(message.payload()) ? sim::SetMember(*asked) : nullptr;
    if (dynamic_cast<const orlane::zem::messaging::appinit::AppInitMsg*>(member) == nullptr) {
      ++manager_.requests_;
      call.Finish(answer);
      return;
    }
    ++manager_.handshakes_;
    const std::unique_ptr<google::protobuf::Message> unified(known.host_prototype().New());
    const google::protobuf::FieldDescriptor* const field = sim::FindMember(*unified, "app_init_config");
    if (field == nullptr) return;
    auto* const config = static_cast<orlane::zem::messaging::appinit::AppInitConfigMsg*>(
        unified->GetReflection()->MutableMessage(unified.get(), field));
    config->set_sender(id_);
    sim::SetType(unified.get(), sim::WireTypeName(*field->message_type()));
    answer.set_payload(unified->SerializeAsString());
    call.Finish(answer);
  }

 private:
  FleetManager& manager_;
  const std::string id_;
  AsioZemProvider provider_;
  rpc::ConnectionManager connections_;
  std::unique_ptr<rpc::Server> server_;
};

FleetManager::FleetManager(int hosts) : hosts_(hosts) {
  for (; made_ < kAphs; ++made_) ids_.push_back(Id(0x0a000000, made_ + 1));
  for (int host = 0; host < hosts_; ++host) {
    proxies_.push_back(std::make_unique<sim::Proxy>(InfoEndpoint(host), ForwardingEndpoint(host)));
  }
  Publish();
  Start();
}

FleetManager::~FleetManager() { Stop(); }

std::string FleetManager::InfoEndpoint(int host) {
  return "tcp://127." + std::to_string(1 + host / 65536) + "." + std::to_string(host / 256 % 256) + "." +
         std::to_string(host % 256) + ":9004";
}

std::string FleetManager::ForwardingEndpoint(int host) {
  std::string endpoint = InfoEndpoint(host);
  return endpoint.replace(endpoint.rfind(':'), std::string::npos, ":4096");
}

void FleetManager::Stop() { aphs_.clear(); }

void FleetManager::Start() {
  if (running()) return;
  for (const std::string& id : ids_) aphs_.push_back(std::make_unique<Aph>(*this, id));
}

void FleetManager::MoveMaster() {
  master_ = (master_ + 1) % ids_.size();
  Publish();
}

void FleetManager::ReplaceAph() {
  const size_t gone = (master_ + 1) % ids_.size();
  ids_[gone] = Id(0x0a000000, ++made_);
  if (running()) aphs_[gone] = std::make_unique<Aph>(*this, ids_[gone]);
  Publish();
}

void FleetManager::Publish() {
  for (int host = 0; host < hosts_; ++host) {
    sim::ProxyInfo info;
    info.transport_node_id = Id(0x5a7d1c52, host);
    info.version = {kVersionMajor, kVersionMinor};
    for (size_t i = 0; i < ids_.size(); ++i) info.aphs.push_back({ids_[i], i == master_});
    proxies_[host]->Publish(info);
  }
}

Load FleetManager::load() const { return {handshakes_, requests_, publishes_, connections_, bytes_}; }

}  // namespace zem::fleet
