#include "app/zema/state/version_info.h"

#include <array>
#include <sstream>
#include <string_view>

#include "framework/log/log.h"
#include "framework/process/command.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr size_t kLongestUname = 50;

struct DistributionWord {
  std::string_view word;
  VersionInfo::Distribution distribution;
};
constexpr std::array kDistributions = {
    DistributionWord{"Ubuntu", VersionInfo::Distribution::kUbuntu},
    DistributionWord{"RedHat", VersionInfo::Distribution::kRedHat},
    DistributionWord{"CentOS", VersionInfo::Distribution::kRedHat},
    DistributionWord{"SUSE", VersionInfo::Distribution::kSuse},
};

}  // namespace

int RunShell(const std::string& command, std::string* output) {
  std::string error;
  const int status = Tarvik::Util::ReadCmdOutput(command, output, &error);
  if (status < 0) ZLOG_DEBUG("%s: %s", command.c_str(), error.c_str());
  return status;
}

bool InitVersionInfo(const ShellCommand& shell, VersionInfo* info) {
  *info = {};
  std::string text;
  shell("uname -s -r", &text);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  std::istringstream words(text);
  std::string system;
  if (text.size() >= kLongestUname || !(words >> system >> info->host.version)) {
    ZLOG_ERROR("41019", "[%s] unrecognized uname output:[%s]\n", __func__, text.c_str());
    return false;
  }
  if (system == "Hypercore") {
    info->hypervisor = true;
    if (const int status = shell("orlane -l", &info->host.product); status != 0) {
      ZLOG_ERROR("41024", "[%s] Failed to run 'orlane -l' with error code [%d]\n", __func__, status);
      return false;
    }
    return true;
  }
  if (system == "Linux") {
    std::string distribution;
    shell("lsb_release -si", &distribution);
    for (const DistributionWord& row : kDistributions) {
      if (distribution.find(row.word) == std::string::npos) continue;
      info->distribution = row.distribution;
      break;
    }
    return true;
  }
  ZLOG_ERROR("41018", "[%s] unrecognized host type:[%s]\n", __func__, system.c_str());
  return false;
}

}  // namespace zem::zema
