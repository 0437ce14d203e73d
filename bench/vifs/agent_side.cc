#include "bench/vifs/agent_side.h"

#include <chrono>

#include "app/zema/host/corvd_frame.h"
#include "app/zema/ports/vif_request.h"

namespace zem::bench {
namespace {

using zema::VifRequest;

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

AgentSide::AgentSide(World& world)
    : ports_(world.library(), host_, nobody_),
      sender_(*this),
      manager_(sender_, identity_, options_),
      handler_(std::make_shared<zema::VifContext>(
                   zema::VifContext{ports_, manager_, host_, identity_, port_lock_, ending_}),
               {sender_, migration_, resync_, health_, options_}),
      instant_([this](const std::string& rpc_id, std::unique_ptr<zema::PortAttached> port) {
        manager_.SetResultToPendingRPC(rpc_id, std::move(port));
      }),
      pool_(handler_, [this](VifRequest& request) { Replied(request); }) {
  identity_.SetHostId("5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a01");
  health_.setZemaLumReady();
  ports_.zones().SetTzToDvsCache({{World::kZone, World::kDvs, "KLN"}});
  pool_.Start();
}

AgentSide::~AgentSide() { pool_.Stop(); }

std::vector<double> AgentSide::Attach(const std::vector<Vif>& vifs, size_t outstanding) {
  return Run(VifRequest::kAttach, World::kLs, vifs, outstanding);
}

std::vector<double> AgentSide::AttachNext(const std::vector<Vif>& vifs, size_t outstanding) {
  return Run(VifRequest::kAttach, World::kNextLs, vifs, outstanding);
}

std::vector<double> AgentSide::DetachFirst(const std::vector<Vif>& vifs, size_t outstanding) {
  return Run(VifRequest::kDetach, World::kLs, vifs, outstanding);
}

std::vector<double> AgentSide::Run(int32_t op_code, const char* ls, const std::vector<Vif>& vifs,
                                   size_t outstanding) {
  {
    const std::lock_guard lock(mutex_);
    op_code_ = op_code;
    ls_ = ls;
    vifs_ = &vifs;
    begun_.assign(vifs.size(), 0);
    took_.assign(vifs.size(), 0);
    queued_ = std::min(outstanding, vifs.size());
    replied_ = 0;
  }
  for (size_t i = 0; i < std::min(outstanding, vifs.size()); ++i) Queue(i);
  std::unique_lock lock(mutex_);
  done_.wait(lock, [&] { return replied_ == vifs.size(); });
  Require(failure_.empty(), failure_);
  return std::move(took_);
}

void AgentSide::Queue(size_t index) {
  const Vif& vif = (*vifs_)[index];
  auto request = std::make_shared<VifRequest>();
  request->request = std::make_shared<zema::CorvdRequest>();
  request->request->connection = index;
  request->op_code = op_code_;
  // The steps of one operation on a VM have ids that differ only in the last number.
  request->op_id = "op-" + std::to_string(index) + (op_code_ == VifRequest::kDetach ? "-2" : "-1");
  request->vif_id = vif.id;
  request->ls_id = ls_;
  request->gcf_path = vif.gcf_path;
  begun_[index] = Now();
  pool_.AddRequest(std::move(request));
}

void AgentSide::Replied(const VifRequest& request) {
  const auto index = static_cast<size_t>(request.request->connection);
  const double now = Now();
  size_t next = 0;
  {
    const std::lock_guard lock(mutex_);
    took_[index] = now - begun_[index];
    if (!request.error_text.empty()) failure_ = request.error_text;
    if (++replied_ == vifs_->size()) done_.notify_one();
    if (queued_ == vifs_->size()) return;
    next = queued_++;
  }
  Queue(next);
}

}  // namespace zem::bench
