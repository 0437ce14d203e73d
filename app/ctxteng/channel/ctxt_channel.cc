#include "app/ctxteng/channel/ctxt_channel.h"

#include <mutex>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/channel/mpa_channel.h"
#include "framework/log/log.h"
#include "mpaclient/bus/bus_record.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

bool IsPublished(const std::string& app_type) {
  return app_type == "ZEM-IntrusionServices" || app_type == "ZEM-IdsPcapService";
}

}  // namespace

CtxtChannel& CtxtChannel::GetInstance() {
  static CtxtChannel& channel = *new CtxtChannel(MpaChannel::GetInstance());
  return channel;
}

CtxtChannel::CtxtChannel(MpaChannel& link) : link_(link) {}
CtxtChannel::~CtxtChannel() = default;

void CtxtChannel::Initialize(zem::AsioZemProvider& provider) {
  provider_ = &provider;
  link_.Start();
}

void CtxtChannel::Shutdown() {
  ZLOG_INFO("CtxtChannel: Shutdown");
  link_.Stop();
  ZLOG_INFO("CtxtChannel: Acquiring write clientMapLock");
  {
    const std::unique_lock lock(client_map_lock_);
    ZLOG_INFO("CtxtChannel: Clearing ClientInfoMap. No of connections: %zu", client_map_.size());
    client_map_.clear();
  }
  ZLOG_INFO("CtxtChannel: ClientMap cleared successfully");
}

void CtxtChannel::RegisterClient(const std::string& app_id, const std::string& app_type, Callback callback) {
  ZLOG_INFO("CtxtChannel: RegisterClient");
  {
    // The entry goes in before the link can deliver anything for it.
    const std::unique_lock lock(client_map_lock_);
    if (!client_map_.try_emplace(app_id, ClientInfo{app_type, std::move(callback)}).second)
      throw CtxtChannelError("RMQ client already registered");
  }
  try {
    link_.RegisterClient(
        app_id, app_type,
        [this](const std::shared_ptr<CtxtMsg>& message, const std::string& id) {
          ZLOG_DEBUG("CtxtChannel: CallbackWrapper");
          RecvMsg(message, id);
        },
        0, *provider_);
  } catch (...) {
    const std::unique_lock lock(client_map_lock_);
    client_map_.erase(app_id);
    throw;
  }
  DumpClientMap();
}

void CtxtChannel::DumpClientMap() const {
  const std::shared_lock lock(client_map_lock_);
  ZLOG_INFO("CtxtChannel: Dump ClientMap. No of connections: %zu", client_map_.size());
  for (const auto& [app_id, client] : client_map_) {
    ZLOG_INFO("\tClientInfo");
    ZLOG_INFO("\tAppId: %s, AppType: %s", app_id.c_str(), client.app_type.c_str());
  }
}

int CtxtChannel::SendMsg(const CtxtMsg& message, bool is_request) {
  ZLOG_DEBUG("CtxtChannel: SendMsg");
  std::string app_type;
  {
    const std::shared_lock lock(client_map_lock_);
    const auto found = client_map_.find(message.appId);
    if (found == client_map_.end()) return 0;
    app_type = found->second.app_type;
  }
  const int32_t type = IsPublished(app_type) ? zem::kRmqClientPublish
                       : is_request          ? zem::kRmqClientRpcRequest
                                             : zem::kRmqClientRpcResponse;
  const int status = link_.SendMsg(message, type, app_type);
  if (status != 0)
    ZLOG_CTX_ERROR(251, "CtxtChannel: Failed to send message to ZEM Manager, error: %d", status);
  return status;
}

void CtxtChannel::RecvMsg(const std::shared_ptr<CtxtMsg>& message, const std::string& app_id) {
  ZLOG_DEBUG("CtxtChannel: RecvMsg with appId %s", app_id.c_str());
  Callback callback;
  {
    const std::shared_lock lock(client_map_lock_);
    const auto found = client_map_.find(app_id);
    if (found == client_map_.end()) return;
    callback = found->second.callback;
  }
  callback(message);
}

}  // namespace Ctxt
