#include "app/zema/app/follow_ups.h"

#include "app/zema/endpoint/vtep_ip_fetching_task.h"
#include "app/zema/host/corvd_handler.h"
#include "app/zema/ports/vif_request.h"
#include "app/zema/workers/task_queues.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

}  // namespace

void FollowUps::SetHostManagement(CorvdHandler* handler) {
  std::unique_lock lock(mutex_);
  if (handler == nullptr && handler_ != nullptr) handler_->Stop();
  handler_ = handler;
  left_.Wait(lock, [this] { return waiting_ == 0; });
}

void FollowUps::AddVifRequest(std::shared_ptr<VifRequest> request) {
  const std::lock_guard lock(mutex_);
  if (handler_ != nullptr) return handler_->AddRequest(std::move(request));
  ZLOG_INFO("no host management to serve [%s]", request->ToString().c_str());
}

void FollowUps::SetPrecreatedPorts(std::shared_ptr<PrecreatedPorts::Map> ports) {
  const std::lock_guard lock(mutex_);
  if (handler_ != nullptr) handler_->SetPrecreatedPorts(std::move(ports));
}

void FollowUps::BeginConfiguration() { ++endpoints_->configuration; }

void FollowUps::FetchAddresses(const Origin& origin, const std::vector<std::string>& devices, int retries) {
  endpoints_->workers.AddTask(
      Worker::kPostHostSync,
      std::make_unique<VtepIpFetchingTask>(
          endpoints_,
          AddressFetchingTask::Event{origin.reply_to, origin.id, origin.transport_node_id, origin.revision},
          devices, AddressFetchingTask::Tries{retries, false, endpoints_->configuration.load()}));
}

void FollowUps::FetchIpv6Addresses(const Origin& origin, const std::map<std::string, std::string>& kinds,
                                   int retries) {
  endpoints_->workers.AddTask(
      Worker::kPostHostSync,
      std::make_unique<VtepIpv6FetchingTask>(
          endpoints_,
          AddressFetchingTask::Event{origin.reply_to, origin.id, origin.transport_node_id, origin.revision},
          kinds, AddressFetchingTask::Tries{retries, false, endpoints_->configuration.load()}));
}

void FollowUps::WaitForHostManagement(int seconds) {
  std::unique_lock lock(mutex_);
  CorvdHandler* const handler = handler_;
  if (handler == nullptr) return;
  ++waiting_;
  lock.unlock();
  handler->WaitForCorvdConnection(seconds);
  lock.lock();
  --waiting_;
  left_.NotifyAll();
}

void FollowUps::AllowResync(bool allowed) {
  const std::lock_guard lock(mutex_);
  if (handler_ != nullptr) handler_->AllowResync(allowed);
}

}  // namespace zem::zema
