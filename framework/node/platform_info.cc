#include "framework/node/platform_info.h"

#include <google/protobuf/stubs/common.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <optional>
#include <string_view>
#include <utility>

#include "framework/log/log.h"
#include "framework/process/command.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

constexpr std::string_view kManagerWord = "zem-manager";
constexpr std::string_view kControllerWord = "zem-controller";
constexpr std::string_view kGlobalManagerWord = "global-manager";

struct NodeRow {
  NodeType type;
  std::string_view text;  // empty: not found by comparison
  const char* message;
};
constexpr std::array kNodes = {
    NodeRow{kNodeQub, "zem-qub", "Running on QUB node, version %d.%d.%d."},
    NodeRow{kNodeKvm, "zem-kvm", "Running on KVM node."},
    NodeRow{kNodeEdge, "zem-edge", "Running on Edge node."},
    NodeRow{kNodeManager, kManagerWord, "Running on Manager node."},
    NodeRow{kNodeController, kControllerWord, "Running on Controller node."},
    NodeRow{kNodePublicCloudGateway, "zem-public-cloud-gateway", "Running on Public Cloud Gateway node."},
    NodeRow{kNodeKeyManager, "zem-keymanager", "Running on Keymanager node."},
    NodeRow{kNodePolicyManager, "zem-policy-manager", "Running on Policy manager node."},
    NodeRow{kNodeCloudServiceManager, "zem-cloud-service-manager", "Running on Cloud service manager node."},
    NodeRow{kNodeDashboard, "zemaas-dashboard", "Running on zemass dashboard node."},
    NodeRow{kNodeHostPublicCloud, "zem-host-public-cloud", "Running on host public cloud node."},
    NodeRow{kNodeBareMetalServer, "zem-bms", "Running on bare metal server"},
    NodeRow{kNodeBareMetalContainer, "zem-bmc", "Running on bare metal container"},
    NodeRow{kNodeUnifiedAppliance, "", "Running on unified appliance"},
    NodeRow{kNodeGlobalManager, kGlobalManagerWord, "Running on global manager"},
    NodeRow{kNodeUnknown, "", "Running on unknown node."},
};

constexpr uint32_t kBundleNodes = kNodeQub | kNodeKvm | kNodeEdge | kNodeManager | kNodeController |
                                  kNodePublicCloudGateway | kNodeBareMetalServer | kNodeBareMetalContainer |
                                  kNodeUnifiedAppliance | kNodeGlobalManager;

struct Distribution {
  std::string_view word;
  const char* message;
};
enum DistributionIndex : size_t { kUbuntu, kRedHat, kCentOs, kSuse, kOracle, kDistributionCount };
constexpr std::array<Distribution, kDistributionCount> kDistributions = {{
    {"Ubuntu", "running on Ubuntu..."},
    {"RedHat", "running on RedHat..."},
    {"CentOS", "running on CentOS..."},
    {"SUSE", "running on SUSE..."},
    {"OracleServer", "running on OEL..."},
}};

struct Facts {
  uint32_t node_type = kNodeUnknown;
  std::string kernel_release;
  int major = 0;
  int minor = 0;
  int update = 0;
  size_t distribution = kDistributionCount;
};

HostIdentity& Identity() {
  static HostIdentity identity;
  return identity;
}

Facts& TheFacts() {
  static Facts facts;
  return facts;
}

std::optional<std::string> FirstLineWith(std::string_view part) {
  std::ifstream file(Identity().issue_path);
  std::string line;
  while (std::getline(file, line)) {
    if (line.find(part) != std::string::npos) return line;
  }
  return std::nullopt;
}

bool NodeLineHas(std::initializer_list<std::string_view> words) {
  const std::optional<std::string> line = FirstLineWith("node-type");
  if (!line) return false;
  for (const std::string_view word : words) {
    if (line->find(word) != std::string::npos) return true;
  }
  return false;
}

bool LogTest(const char* format_text, bool result) {
  ZLOG_INFO("%s%s", format_text, result ? "True" : "False");
  return result;
}

bool HasManagerAndController(std::string_view text) {
  return text.find(kManagerWord) != std::string_view::npos &&
         text.find(kControllerWord) != std::string_view::npos;
}

uint32_t NodeTypeOf(std::string_view value) {
  for (const NodeRow& row : kNodes) {
    if (row.type == kNodeUnifiedAppliance && HasManagerAndController(value)) return row.type;
    if (!row.text.empty() && value == row.text) return row.type;
  }
  return kNodeUnknown;
}

uint32_t ReadNodeType() {
  constexpr std::string_view kKey = "node-type: ";
  const std::optional<std::string> line = FirstLineWith(kKey);
  return line && line->size() > kKey.size() ? NodeTypeOf(std::string_view(*line).substr(kKey.size()))
                                            : static_cast<uint32_t>(kNodeUnknown);
}

void ReadKernelVersion(const char* release, Facts* facts) {
  facts->kernel_release = release;
  const size_t first = facts->kernel_release.find('.');
  const size_t second = first == std::string::npos ? first : facts->kernel_release.find('.', first + 1);
  if (second == std::string::npos) {
    ZLOG_WARN("uname() failed, invalid release version %s", release);
    return;
  }
  facts->major = std::atoi(release);
  facts->minor = std::atoi(release + first + 1);
  facts->update = std::atoi(release + second + 1);
}

void LogNode(const Facts& facts) {
  for (const NodeRow& row : kNodes) {
    if (row.type != facts.node_type) continue;
    if (row.type == kNodeQub) {
      ZLOG_INFO("Running on QUB node, version %d.%d.%d.", facts.major, facts.minor, facts.update);
    } else {
      ZLOG_INFO("%s", row.message);
    }
  }
}

void ReadDistribution(Facts* facts) {
  std::string output;
  std::string error;
  if (Util::ReadCmdOutput(Identity().distribution_command, &output, &error) < 0) {
    ZLOG_DEBUG("%s: %s", Identity().distribution_command.c_str(), error.c_str());
  }
  for (size_t i = 0; i < kDistributions.size(); ++i) {
    if (output.find(kDistributions[i].word) == std::string::npos) continue;
    facts->distribution = i;
    ZLOG_TRACE("%s", kDistributions[i].message);
    return;
  }
  ZLOG_TRACE("running on unknown os...");
}

}  // namespace

HostIdentity SetHostIdentity(HostIdentity identity) { return std::exchange(Identity(), std::move(identity)); }

int LoadPlatformInfo() {
  GOOGLE_PROTOBUF_VERIFY_VERSION;
  Facts& facts = TheFacts();
  facts = Facts();
  facts.node_type = ReadNodeType();
  utsname names{};
  if (Identity().uname(&names) != 0) {
    ZLOG_WARN("uname() failed");
    names = utsname{};
  }
  if (std::strcmp(names.sysname, "Hypercore") == 0) {
    ReadKernelVersion(names.release, &facts);
    if (facts.node_type == kNodeUnknown) facts.node_type = kNodeQub;
  }
  LogNode(facts);
  if (facts.node_type == kNodeUnknown) return -1;
  if (std::strcmp(names.sysname, "Linux") == 0) ReadDistribution(&facts);
  return 0;
}

uint32_t GetNodeType() { return TheFacts().node_type; }
bool IsEdgeOrPcg() { return (GetNodeType() & (kNodeEdge | kNodePublicCloudGateway)) != 0; }
bool IsKnownNodeForBundle() { return (GetNodeType() & kBundleNodes) != 0; }

const std::string& GetKernelRelease() { return TheFacts().kernel_release; }
bool IsVersion65() { return TheFacts().major == 6 && TheFacts().minor == 5; }
bool IsVersionAbove607() {
  const Facts& facts = TheFacts();
  return facts.major * 10000 + facts.minor * 100 + facts.update > 60700;
}

bool IsUbuntu() { return TheFacts().distribution == kUbuntu; }
bool IsRedHat() { return TheFacts().distribution == kRedHat; }
bool IsCentOs() { return TheFacts().distribution == kCentOs; }
bool IsSuse() { return TheFacts().distribution == kSuse; }
bool IsOracleLinux() { return TheFacts().distribution == kOracle; }

bool IsZemManager() { return LogTest("Running on zem manager: ", NodeLineHas({kManagerWord})); }
bool IsZemController() { return LogTest("Running on zem controller: ", NodeLineHas({kControllerWord})); }
bool IsUnifiedAppliance() {
  const std::optional<std::string> line = FirstLineWith("node-type");
  return LogTest(
      "Running on zem unified appliance: ",
      line && (HasManagerAndController(*line) || line->find(kGlobalManagerWord) != std::string::npos));
}
bool IsPublicCloudGateway() {
  return LogTest("Running on PCG node: ", NodeLineHas({"zem-public-cloud-gateway"}));
}
bool IsHyperV() { return NodeLineHas({"zem-hyperv"}); }
bool IsHostNode() {
  return NodeLineHas(
      {"zem-qub", "zem-host", "zem-kvm", "zem-bms", "zem-bmc", "zem-rhelkvm", "zem-ubuntukvm"});
}
bool IsEdgeNode() { return NodeLineHas({"zem-edge"}); }

}  // namespace zem::Tarvik
