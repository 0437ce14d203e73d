#pragma once

#include <string>
#include <utility>
#include <vector>

#include "app/zema/hostconfig/follow_up_tasks.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {

/// Records the calls; work scheduled for later waits in `later`.
class NotedFollowUps final : public FollowUpTasks {
 public:
  void BeginConfiguration() override {}
  void FetchAddresses(const Origin& origin, const std::vector<std::string>& devices, int) override {
    for (const std::string& device : devices) notes.push_back("address " + device + " " + origin.reply_to);
  }
  void FetchIpv6Addresses(const Origin&, const std::map<std::string, std::string>&, int) override {}
  void HotSwapUnusedCkln(int, int) override { notes.push_back("hot swap"); }
  void ApplyHighPerformanceProfile() override {}
  void WaitForHostManagement(int) override { notes.push_back("wait"); }
  void UpdateTnUuidInFile(const std::string&) override {}
  void AllowResync(bool) override {}
  void Applied(const orlane::zem::switching::HostConfigMsg& config) override {
    applied.push_back(config.id());
  }
  void LeaveMaintenance() override { ++left_maintenance; }
  void RunLater(Duration delay, std::function<void()> work) override {
    later_after = delay;
    later = std::move(work);
  }
  void RunBehind(std::function<void()> work) override { work(); }

  std::vector<std::string> notes;
  std::vector<std::string> applied;
  int left_maintenance = 0;
  Duration later_after{};
  std::function<void()> later;
};

}  // namespace zem::zema
