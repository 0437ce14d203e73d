#include "app/supportbundle/worker_info.h"

#include "framework/log/log.h"
#include "platform/core/wipe_text.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "supportbundle"};

}  // namespace

void BundleRequest::WipePassword() { WipeText(&file_password); }

void LockWorkerInfo::SetState(BundleStatus state) {
  ZLOG_DEBUG("bundle %s: status %u to %u", info_.request_.generate_id.c_str(),
             static_cast<unsigned>(info_.state_), static_cast<unsigned>(state));
  info_.state_ = state;
  info_.state_text_.clear();
}

}  // namespace zem::Tarvik
