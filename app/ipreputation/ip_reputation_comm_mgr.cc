#include "app/ipreputation/ip_reputation_comm_mgr.h"

#include <utility>

#include "app/ipreputation/ip_reputation_msg_handler.h"
#include "framework/log/log.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "ipreputation"};

}  // namespace

IpReputationCommMgr::IpReputationCommMgr(AsioZemProvider& provider,
                                         std::shared_ptr<covedb::CoveDbClientInterface> store)
    : provider_(provider), store_(std::move(store)) {
  ZLOG_DEBUG("IpReputation message handler initialized");
}

IpReputationCommMgr::~IpReputationCommMgr() = default;

bool IpReputationCommMgr::Start() {
  handler_ = std::make_shared<IpReputationMsgHandler>(provider_, store_);
  ZLOG_DEBUG("IpReputation message handler constructed");
  return handler_->Start();
}

void IpReputationCommMgr::Stop() {
  if (handler_) handler_->Stop();
}

}  // namespace zem::Tarvik
