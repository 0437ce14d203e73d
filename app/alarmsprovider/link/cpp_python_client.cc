#include "app/alarmsprovider/link/cpp_python_client.h"

#include <utility>

#include "app/alarmsprovider/link/client_lib_msg_ctx.h"
#include "app/alarmsprovider/link/client_messages.h"
#include "app/alarmsprovider/link/limits.h"
#include "framework/log/log.h"
#include "platform/core/uuid.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "alarmsprovider"};

}  // namespace

CppPythonClient::CppPythonClient(AsioZemProvider& provider, std::string source_id, Call call)
    : provider_(provider), source_id_(std::move(source_id)), call_(std::move(call)) {}

CppPythonClient::~CppPythonClient() {
  for (const auto& [id, pending] : pending_) pending.expiry->Cancel();
}

bool CppPythonClient::WriteWelcome() {
  Request welcome;
  welcome.set_msg_type(SubClientRequestType::kWelcome);
  return call_.Write(welcome);
}

void CppPythonClient::Sync(std::shared_ptr<SyncCtx> context) {
  if (IsClosed()) return;
  Request request;
  request.set_msg_type(SubClientRequestType::kSync);
  *request.mutable_sync_request() = SyncRequestOf(*context);
  Send(std::move(request), std::move(context));
}

void CppPythonClient::FullSync(std::shared_ptr<FullSyncCtx> context) {
  if (IsClosed()) return;
  Request request;
  request.set_msg_type(SubClientRequestType::kFullSync);
  request.mutable_full_sync_request();
  Send(std::move(request), std::move(context));
}

void CppPythonClient::Send(Request request, std::shared_ptr<ClientLibMsgCtx> context) {
  const std::string correlation_id = RandomUuidText();
  request.set_correlation_id(correlation_id);
  bool entered = false;
  {
    const std::lock_guard lock(mutex_);
    entered = pending_.size() < kMaxPendingRequests;
    if (entered) {
      const auto self = boost::static_pointer_cast<CppPythonClient>(shared_from_this());
      auto expiry = provider_.timers().Schedule(
          kMaxPendingTime, [weak = boost::weak_ptr<CppPythonClient>(self), correlation_id] {
            const auto alive = weak.lock();
            if (!alive) return;
            if (const auto expired = alive->Take(correlation_id)) expired->CompleteWithoutResult();
          });
      pending_.emplace(correlation_id, Pending{context, std::move(expiry)});
    }
  }
  if (entered && call_.Write(request)) return;
  // Nobody may have taken it meanwhile but the expiry and the end of the client, which complete it, too.
  if (!entered || Take(correlation_id) != nullptr) context->CompleteWithoutResult();
}

std::shared_ptr<ClientLibMsgCtx> CppPythonClient::Take(const std::string& correlation_id) {
  const std::lock_guard lock(mutex_);
  const auto found = pending_.find(correlation_id);
  if (found == pending_.end()) return nullptr;
  const Pending taken = std::move(found->second);
  pending_.erase(found);
  taken.expiry->Cancel();
  return taken.context;
}

void CppPythonClient::HandleResponse(const Response& response) {
  ZLOG_INFO("Handle client response, sourceId = %s, correlationId = %s", response.source_id().c_str(),
            response.correlation_id().c_str());
  const auto context = Take(response.correlation_id());
  if (context == nullptr) {
    ZLOG_INFO("No pending call with correlationId: %s for client: %s", response.correlation_id().c_str(),
              source_id_.c_str());
    return;
  }
  switch (response.msg_type()) {
    case SubClientResponseType::kFullSync:
      ZLOG_DEBUG("Got FullSync rsp from sub client");
      // A sync that is answered in this way has no answer any more, and the collector waits for one.
      context->CompleteWithoutResult();
      return;
    case SubClientResponseType::kSync:
      ZLOG_INFO("Got Sync rsp from sub client");
      // The answer to a full sync may claim to be one to a sync.
      if (const auto sync = std::dynamic_pointer_cast<SyncCtx>(context))
        sync->Complete(response.sync_response());
      return;
    default:
      ZLOG_INFO("Invalid message received from sub client");
      context->CompleteWithoutResult();
  }
}

void CppPythonClient::AbandonRequests() {
  std::map<std::string, Pending> abandoned;
  {
    const std::lock_guard lock(mutex_);
    abandoned.swap(pending_);
  }
  for (const auto& [id, pending] : abandoned) {
    pending.expiry->Cancel();
    pending.context->CompleteWithoutResult();
  }
}

}  // namespace zem::Tarvik
