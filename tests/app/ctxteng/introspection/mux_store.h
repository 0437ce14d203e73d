#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "app/ctxteng/introspection/surroundings.h"
#include "platform/core/condition.h"
#include "proto/context/mux_config.pb.h"

namespace Ctxt::test {

/// A multiplexer that keeps what it is configured with: solutions as a whole, VMs one by one, and rules apart
/// from profiles.  It can be away, refuse, or be slow.
class MuxStore final : public MuxPort {
 public:
  uint32_t ConfigureMux(const std::string& bytes) override {
    std::unique_lock lock(mutex_);
    released_.Wait(lock, [this] { return !held_; });
    const uint32_t answer = status.load();
    orlane::zem::ouvi::MuxConfigMsg config;
    if (!config.ParseFromString(bytes)) return 0x10002;
    log_.push_back(Kind(config) + (answer == 0 ? "" : " refused"));
    if (answer != 0) return answer;
    if (config.has_sol_info()) solutions_ = config.sol_info();
    auto& vms = config.source() == 2 ? by_rule_ : by_profile_;
    for (const auto& vm : config.vm_info()) {
      for (const auto& solution : vm.solution()) {
        const std::string text = solution.id() + "/" + solution.tag() + "/" + solution.order();
        if (vm.operation() == 2) {
          vms.erase(vm.entity_uuid());
        } else {
          vms[vm.entity_uuid()] = text;
        }
      }
    }
    return 0;
  }

  /// Dies with all that it was told.
  void Forget() {
    std::lock_guard lock(mutex_);
    solutions_.Clear();
    by_rule_.clear();
    by_profile_.clear();
  }
  void Hold(bool hold) {
    std::lock_guard lock(mutex_);
    held_ = hold;
    released_.NotifyAll();
  }

  /// The kind of each call: "solution", "vm" or "rule".
  std::vector<std::string> TakeLog() {
    std::lock_guard lock(mutex_);
    return std::exchange(log_, {});
  }
  orlane::zem::ouvi::GiSolutionInfoMsg solutions() {
    std::lock_guard lock(mutex_);
    return solutions_;
  }
  std::map<std::string, std::string> by_rule() {
    std::lock_guard lock(mutex_);
    return by_rule_;
  }
  std::map<std::string, std::string> by_profile() {
    std::lock_guard lock(mutex_);
    return by_profile_;
  }

  std::atomic<uint32_t> status{0};

 private:
  static std::string Kind(const orlane::zem::ouvi::MuxConfigMsg& config) {
    if (config.has_sol_info()) return "solution";
    return config.source() == 2 ? "rule" : "vm";
  }

  std::mutex mutex_;  // guards all below
  zem::Condition released_;
  bool held_ = false;
  std::vector<std::string> log_;
  orlane::zem::ouvi::GiSolutionInfoMsg solutions_;
  std::map<std::string, std::string> by_rule_;
  std::map<std::string, std::string> by_profile_;
};

}  // namespace Ctxt::test
