#include "app/lldp/lldp.h"

#include <utility>

#include "app/lldp/lldp_qub.h"
#include "framework/hostapi/lum_client.h"
#include "platform/provider/provider.h"
#include "platform/provider/work_group.h"

namespace zem::Tarvik {
namespace {

constexpr int kThreads = 2;

}  // namespace

Lldp::Lldp(AsioZemProvider& provider) : provider_(provider) {}

Lldp::~Lldp() { Stop(); }

void Lldp::Start(boost::intrusive_ptr<LumClient> client) {
  work_group_ = new WorkGroup("lldp", provider_.metrics(), WorkGroup::kUnbounded);
  work_group_->Start(kThreads);
  qub_ = new LldpQub(provider_, work_group_, std::move(client));
  qub_->Start();
}

void Lldp::Stop() {
  if (!qub_) return;
  qub_->Stop();
  qub_.reset();
  work_group_->Stop();
  work_group_.reset();
}

}  // namespace zem::Tarvik
