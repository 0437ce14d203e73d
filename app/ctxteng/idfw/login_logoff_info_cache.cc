#include "app/ctxteng/idfw/login_logoff_info_cache.h"

#include <algorithm>
#include <thread>

#include "app/ctxteng/idfw/login_logoff_signal.h"
#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

// The queue of a full cache may be empty for a moment, between another thread's claim of a place and its
// push.
constexpr int kPatience = 64;

void Dump(const LoginLogoffInfo& info) {
  if (!ZLOG_WANTS(zem::kLogTrace)) return;
  ZLOG_TRACE("Idfw: Dump LOGIN/LOGOFF INFO");
  ZLOG_TRACE("\tUserName: %s", info.userName.c_str());
  ZLOG_TRACE("\tDomain: %s", info.domainName.c_str());
  ZLOG_TRACE("\tVM vc uuid: %s", info.vcUuid.c_str());
  ZLOG_TRACE("\tVM bios uuid: %s", info.biosUuid.c_str());
  ZLOG_TRACE("\tEvent timestamp: %lu", info.timestamp);
  ZLOG_TRACE("\tSession ID: %u", info.sessionId);
  ZLOG_TRACE("\tEvent Type: %d", static_cast<int>(info.eventType));
  ZLOG_TRACE("\tClient ip %s", std::string(info.ClientIpText()).c_str());
  ZLOG_TRACE("\tClient type %u", info.clientIpType);
  ZLOG_TRACE("Idfw: Dump LOGIN/LOGOFF INFO DONE");
}

}  // namespace

LoginLogoffInfoCache::LoginLogoffInfoCache(uint32_t cache_limit, uint32_t cache_threshold,
                                           std::shared_ptr<LoginLogoffSignal> signal)
    : cache_limit_(std::clamp(cache_limit, 1U, kMostEntries)),
      cache_threshold_(cache_threshold),
      signal_(std::move(signal)),
      queue_(cache_limit_) {
  if (cache_limit != cache_limit_)
    ZLOG_WARN("Idfw: A cache limit of %u is out of range, using %u", cache_limit, cache_limit_);
}

LoginLogoffInfoCache::~LoginLogoffInfoCache() {
  while (Pop() != nullptr) {
  }
}

bool LoginLogoffInfoCache::Reserve(uint32_t* size) {
  *size = size_;
  do {
    if (*size >= cache_limit_) return false;
  } while (!size_.compare_exchange_weak(*size, *size + 1));
  ++*size;
  return true;
}

std::unique_ptr<LoginLogoffInfo> LoginLogoffInfoCache::Pop() {
  LoginLogoffInfo* info = nullptr;
  if (!queue_.Pop(&info)) return nullptr;
  --size_;
  return std::unique_ptr<LoginLogoffInfo>(info);
}

void LoginLogoffInfoCache::Add(std::unique_ptr<LoginLogoffInfo> info) {
  Dump(*info);
  uint32_t size = 0;
  for (int tries = 0;;) {
    if (Reserve(&size)) {
      if (queue_.Push(info.get())) break;
      --size_;
    }
    if (Pop() != nullptr) {
      ++dropped_;
      ZLOG_CTX_ERROR(571, "Idfw: Login/logoff cache is full, cache limit is %u. Dropping old event...",
                     cache_limit_);
    } else if (++tries == kPatience) {
      ++dropped_;
      ZLOG_CTX_ERROR(1054, "Idfw: Failed to allocate memory for Login/logoff info, dropping event");
      return;
    } else {
      std::this_thread::yield();
    }
  }
  (void)info.release();
  if (!Passes(size) || Passes(size - 1)) return;
  std::lock_guard lock(signal_->mutex);
  ZLOG_INFO("Idfw: Login/logoff cache threshold of %u percent is reached.", cache_threshold_);
  signal_->threshold_passed = true;
  signal_->changed.NotifyAll();
}

void LoginLogoffInfoCache::ConsumeAll(const std::function<bool(const LoginLogoffInfo& info)>& handler) {
  for (uint32_t left = cache_limit_; left > 0; --left) {
    const auto info = Pop();
    if (info == nullptr || !handler(*info)) return;
  }
}

}  // namespace Ctxt
