#pragma once

#include <sys/utsname.h>

#include <cstdint>
#include <string>

namespace zem::Tarvik {

/// What kind of node this is, one bit each.
enum NodeType : uint32_t {
  kNodeUnknown = 0,
  kNodeQub = 1,
  kNodeKvm = 2,
  kNodeEdge = 4,
  kNodeManager = 8,
  kNodeController = 16,
  kNodePublicCloudGateway = 32,
  kNodeKeyManager = 64,
  kNodePolicyManager = 128,
  kNodeCloudServiceManager = 256,
  kNodeDashboard = 512,
  kNodeHostPublicCloud = 1024,
  kNodeBareMetalServer = 2048,
  kNodeBareMetalContainer = 4096,
  kNodeUnifiedAppliance = 8192,
  kNodeGlobalManager = 16384,
};

/// The nodes on which host realization runs.
inline constexpr uint32_t kRealizationNodes = kNodeQub | kNodeKvm | kNodeBareMetalServer |
                                              kNodeBareMetalContainer | kNodeEdge | kNodePublicCloudGateway;

/// Where the platform's facts come from; the defaults are the host's own.
struct HostIdentity {
  std::string issue_path = "/etc/zem_issue";
  int (*uname)(utsname* names) = &::uname;
  std::string distribution_command = "/usr/bin/lsb_release -si";
};

/// For tests, before LoadPlatformInfo; gives the one before.
HostIdentity SetHostIdentity(HostIdentity identity);

/// Learns node type, kernel and distribution, and logs them.  0, or -1 when the node type is unknown.  By the
/// main thread, before others start; the getters below only read afterwards.
[[nodiscard]] int LoadPlatformInfo();

uint32_t GetNodeType();
bool IsEdgeOrPcg();
/// Nodes that collect support bundles.
bool IsKnownNodeForBundle();

/// The kernel's release text and version; empty and 0 unless the kernel is the hypervisor's.
const std::string& GetKernelRelease();
bool IsVersion65();
bool IsVersionAbove607();

bool IsUbuntu();
bool IsRedHat();
bool IsCentOs();
bool IsSuse();
bool IsOracleLinux();

/// These read the identity file afresh and look for words in its first "node-type" line, whatever else it
/// holds; a node may so be a manager here and unknown to GetNodeType.  From any thread.
bool IsZemManager();
bool IsZemController();
bool IsUnifiedAppliance();
bool IsPublicCloudGateway();
bool IsHyperV();
bool IsHostNode();
bool IsEdgeNode();

}  // namespace zem::Tarvik
