#include "app/zema/hostconfig/follow_up_tasks.h"

#include "framework/log/log.h"

namespace zem::zema {
namespace {
constexpr LogSource kLog{"tarvik", "zema"};
}  // namespace

void FollowUpTasks::BeginConfiguration() {}

void FollowUpTasks::FetchAddresses(const Origin&, const std::vector<std::string>& devices, int) {
  ZLOG_DEBUG("Not served on this host: addresses of %zu endpoints by DHCP", devices.size());
}

void FollowUpTasks::FetchIpv6Addresses(const Origin&, const std::map<std::string, std::string>& kinds, int) {
  ZLOG_DEBUG("Not served on this host: IPv6 addresses of %zu endpoints", kinds.size());
}

void FollowUpTasks::HotSwapUnusedCkln(int, int) { ZLOG_DEBUG("Not served on this host: hot swap"); }

void FollowUpTasks::ApplyHighPerformanceProfile() {
  ZLOG_DEBUG("Not served on this host: waiting for the maintenance mode to apply performance settings");
}

void FollowUpTasks::WaitForHostManagement(int) {
  ZLOG_DEBUG("Not served on this host: waiting for the host management daemon");
}

void FollowUpTasks::UpdateTnUuidInFile(const std::string&) {
  ZLOG_DEBUG("Not served on this host: transport node id in the controllers' file");
}

void FollowUpTasks::AllowResync(bool) {}

}  // namespace zem::zema
