#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "platform/rpc/connection.h"
#include "platform/rpc/hub/transport_impl.h"

namespace zem::rpc {

class ConnectionManager::Impl {
 public:
  explicit Impl(Transport& transport) : transport_(static_cast<TransportImpl&>(transport).weak_from_this()) {}

  bool Request(const net::Endpoint& endpoint, ConnectionParams params) {
    const auto transport = transport_.lock();
    if (!transport || !transport->outgoing().Request(endpoint, std::move(params))) return false;
    std::lock_guard lock(mutex_);
    requested_.insert(endpoint.text());
    return true;
  }

  bool Teardown(const net::Endpoint& endpoint) {
    const auto transport = transport_.lock();
    {
      std::lock_guard lock(mutex_);
      requested_.erase(endpoint.text());
    }
    return transport && transport->outgoing().Teardown(endpoint);
  }

  ~Impl() {
    const auto transport = transport_.lock();
    if (!transport) return;
    for (const std::string& text : requested_) transport->outgoing().Teardown(net::Endpoint(text));
  }

 private:
  const std::weak_ptr<TransportImpl> transport_;
  std::mutex mutex_;  // guards requested_
  std::set<std::string> requested_;
};

ConnectionManager::ConnectionManager(Transport& transport) : impl_(std::make_unique<Impl>(transport)) {}

ConnectionManager::~ConnectionManager() = default;

bool ConnectionManager::RequestConnection(const net::Endpoint& endpoint, ConnectionParams params) {
  return impl_->Request(endpoint, std::move(params));
}

bool ConnectionManager::TeardownConnection(const net::Endpoint& endpoint) {
  return impl_->Teardown(endpoint);
}

}  // namespace zem::rpc
