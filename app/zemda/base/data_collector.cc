#include "app/zemda/base/data_collector.h"

#include <algorithm>
#include <mutex>
#include <vector>

#include "framework/log/log.h"

namespace ZemDa {
namespace {

constexpr zem::LogSource kLog{"tarvik", "zemda"};

struct Proxies {
  std::mutex mutex;  // guards list
  std::vector<DataCollectorProxyBase*> list;
};

Proxies& TheProxies() {
  static auto& proxies = *new Proxies();  // a proxy may be destroyed at the end of the process
  return proxies;
}

}  // namespace

void DataCollector::SetBlocked(bool blocked) {
  const bool before = blocked_.exchange(blocked);
  ZLOG_DEBUG("Changed DC blocked state from [%d] to [%d]", before, blocked);
}

void DataCollector::SetSyncInitRequested(bool requested) {
  const bool before = sync_init_requested_.exchange(requested);
  ZLOG_DEBUG("Changed DC sync init state from [%d] to [%d]", before, requested);
}

bool DataCollector::TakeSyncInitRequested() {
  if (!sync_init_requested_) return false;
  SetSyncInitRequested(false);
  return true;
}

DataCollectorProxyBase::DataCollectorProxyBase() {
  Proxies& proxies = TheProxies();
  const std::lock_guard lock(proxies.mutex);
  proxies.list.push_back(this);
}

DataCollectorProxyBase::~DataCollectorProxyBase() {
  Proxies& proxies = TheProxies();
  const std::lock_guard lock(proxies.mutex);
  std::erase(proxies.list, this);
}

DataCollectorProxyBase* DataCollectorProxyBase::Find(int32_t host_type) {
  Proxies& proxies = TheProxies();
  const std::lock_guard lock(proxies.mutex);
  for (DataCollectorProxyBase* const proxy : proxies.list) {
    if (proxy->host_type() != host_type) continue;
    ZLOG_DEBUG("Returning proxy for %d", host_type);
    return proxy;
  }
  ZLOG_ERROR("MPA20012", "Error while getting DC Proxy for %d", host_type);
  return nullptr;
}

}  // namespace ZemDa
