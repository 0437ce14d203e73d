#include "bench/vifs/instant_manager.h"

#include <utility>

#include "bench/vifs/world.h"

namespace zem::bench {

InstantManager::InstantManager(Answer answer) : answer_(std::move(answer)), thread_([this] { Serve(); }) {}

InstantManager::~InstantManager() {
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  asked_.notify_one();
  thread_.join();
}

void InstantManager::Ask(bool attach, const std::string& rpc_id, const std::string& vif,
                         const std::string& ls) {
  {
    const std::lock_guard lock(mutex_);
    questions_.push_back({attach, rpc_id, vif, ls});
  }
  asked_.notify_one();
}

void InstantManager::Fill(const Question& question, zema::PortAttached* port) {
  // The numbers of World's ports.
  const auto numbered = [&question](char kind) {
    std::string id = question.vif;
    id[7] = kind;
    return id;
  };
  const bool moves = question.ls == World::kNextLs;
  port->vif_id = question.vif;
  port->port_id = numbered(moves ? '5' : '4');
  port->switch_id = question.ls;
  port->zone_id = World::kZone;
  port->extra_configs["com.orlane.port.extraConfig.vm.tagset"] = "blue";
  if (!moves) return;
  port->old_port_id = numbered('4');
  port->old_switch_id = World::kLs;
  port->old_zone_id = World::kZone;
}

void InstantManager::Serve() {
  std::unique_lock lock(mutex_);
  for (;;) {
    asked_.wait(lock, [this] { return stopped_ || !questions_.empty(); });
    if (stopped_) return;
    const Question question = std::move(questions_.front());
    questions_.pop_front();
    lock.unlock();
    auto port = std::make_unique<zema::PortAttached>();
    port->op_id = question.rpc_id;
    if (question.attach) Fill(question, port.get());
    answer_(question.rpc_id, std::move(port));
    lock.lock();
  }
}

}  // namespace zem::bench
