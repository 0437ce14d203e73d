#include "app/zemda/base/host_info.h"

#include <algorithm>
#include <array>
#include <boost/algorithm/string/trim.hpp>
#include <mutex>

#include "app/zemda/base/shell_command.h"
#include "framework/log/log.h"
#include "framework/node/platform_info.h"
#include "proto/ida/ida.pb.h"

namespace ZemDa {
namespace {

constexpr zem::LogSource kLog{"tarvik", "zemda"};

constexpr uint32_t kDistributionNodes =
    zem::Tarvik::kNodeKvm | zem::Tarvik::kNodeBareMetalServer | zem::Tarvik::kNodeBareMetalContainer;
constexpr uint32_t kAcceptedNodes =
    kDistributionNodes | zem::Tarvik::kNodeQub | zem::Tarvik::kNodePublicCloudGateway;
constexpr int32_t kSuse = 7;

struct Distribution {
  int32_t host_type;
  bool (*is_this)();
};
// In the order in which they are looked for.
constexpr std::array kDistributions = {
    Distribution{5, &zem::Tarvik::IsUbuntu}, Distribution{6, &zem::Tarvik::IsRedHat},
    Distribution{4, &zem::Tarvik::IsCentOs}, Distribution{kSuse, &zem::Tarvik::IsSuse},
    Distribution{8, &zem::Tarvik::IsOracleLinux}};

struct Vendor {
  const char* board;
  const char* suffix;
};
constexpr std::array kVendors = {Vendor{"BRCM-SR", "-STINGRAY"}, Vendor{"BlueField SoC", "-BLUEFIELD"}};

constexpr size_t kMostReply = 1024;

std::string Ask(const shellCommand& command) {
  std::string reply;
  if (ExecuteCommand(command, &reply, nullptr) != 0) {
    ZLOG_ERROR("MPA20006", "Failed to execute command %s with reply %s", command.command.c_str(),
               reply.substr(0, kMostReply).c_str());
    return {};
  }
  boost::algorithm::trim(reply);
  return reply;
}

struct Current {
  std::mutex mutex;  // guards info
  std::shared_ptr<const HostInfo> info;
};

Current& TheCurrent() {
  static auto& current = *new Current();  // threads ask until the process ends
  return current;
}

}  // namespace

std::shared_ptr<const HostInfo> HostInfo::Get() {
  Current& current = TheCurrent();
  const std::lock_guard lock(current.mutex);
  if (current.info == nullptr) current.info.reset(new HostInfo());
  return current.info;
}

void HostInfo::Forget() {
  Current& current = TheCurrent();
  const std::lock_guard lock(current.mutex);
  current.info.reset();
}

std::string HostInfo::TypeName() const {
  using orlane::zem::ida::HostType;
  return orlane::zem::ida::HostType_Name(static_cast<HostType>(host_type_));
}

HostInfo::HostInfo() {
  const uint32_t node = zem::Tarvik::GetNodeType();
  const bool one_bit = node != 0 && (node & (node - 1)) == 0;
  if (!one_bit || (node & kAcceptedNodes) == 0) {
    ZLOG_WARN("Invalid nodetype %d for zem-da. Exiting.", static_cast<int>(node));
    return;
  }
  ZLOG_INFO("Found %d Node type", static_cast<int>(node));
  if (node == zem::Tarvik::kNodeQub) {
    ZLOG_INFO("Found QUB Host type");
    host_type_ = kQub;
    version_ = zem::Tarvik::GetKernelRelease();
  } else if ((node & kDistributionNodes) != 0) {
    FindDistribution();
  }
}

void HostInfo::FindDistribution() {
  const auto* const found =
      std::ranges::find_if(kDistributions, [](const Distribution& each) { return each.is_this(); });
  if (found == kDistributions.end()) {
    ZLOG_ERROR("MPA22009", "Failed to find host type");
    return;
  }
  host_type_ = found->host_type;
  if (host_type_ == kSuse) {
    version_ = second_version_ = Ask({"/usr/bin/lsb_release -sd", "version"});
    return;
  }
  version_ = Ask({"/usr/bin/lsb_release -sr", "version"});
  const std::string board = Ask({"sudo dmidecode -s baseboard-product-name ", "vendor"});
  ZLOG_INFO("Vendor = %s", board.c_str());
  for (const Vendor& vendor : kVendors) {
    if (board.find(vendor.board) != std::string::npos) version_ += vendor.suffix;
  }
}

}  // namespace ZemDa
