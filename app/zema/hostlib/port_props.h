#pragma once

/// Names of the properties of switches and their ports.
namespace zem::zema::port_props {

// Properties of ports.
inline constexpr const char* kAlias = "com.orlane.common.port.alias";
inline constexpr const char* kConnectId = "com.orlane.common.port.connectid";
inline constexpr const char* kBlock = "com.orlane.common.port.block";
inline constexpr const char* kBackingType = "com.orlane.common.port.backingType";
inline constexpr const char* kPersistPath = "com.orlane.common.port.volatile.persist";
inline constexpr const char* kOrg = "com.orlane.common.port.org";
inline constexpr const char* kProject = "com.orlane.common.port.project";
inline constexpr const char* kVpc = "com.orlane.common.port.vpc";
inline constexpr const char* kUnblockedVlan = "com.orlane.port.unblocked.vlan";
inline constexpr const char* kAttachmentState = "com.orlane.port.extraConfig.attachment.state";
inline constexpr const char* kExternalId = "com.orlane.port.extraConfig.vnic.external.id";
inline constexpr const char* kOpaqueNetworkId = "com.orlane.port.extraConfig.opaqueNetwork.id";
inline constexpr const char* kLogicalPortId = "com.orlane.port.extraConfig.logicalPort.id";
inline constexpr const char* kSecurityEnable = "com.orlane.port.extraConfig.security.enable";
inline constexpr const char* kCrx = "com.orlane.port.extraConfig.vnic.crx";
inline constexpr const char* kPortOpPending = "com.orlane.port.extraConfig.portOp.pending";
/// The id of the host that saved the port last.
inline constexpr const char* kSavedBy = "com.orlane.port.extraConfig.saved.by";
inline constexpr const char* kVlan = "com.orlane.vswitch.port.vlan";
inline constexpr const char* kUplinkTeaming = "com.orlane.vswitch.port.logicalswitch.teaming";

/// The properties that tie a port to a VIF.
inline constexpr const char* kOpaqueData[] = {kExternalId, kOpaqueNetworkId, kLogicalPortId, kSecurityEnable};

inline constexpr const char* kTrue = "true";
inline constexpr const char* kFalse = "false";
inline constexpr const char* kPendingConf = "pending_conf";

// Host properties of switches.
inline constexpr const char* kVswitchStatus = "com.orlane.common.opaqueDvs.status.component.vswitch";
inline constexpr const char* kSpfEnabled = "com.orlane.zem.spf.enabled";
inline constexpr const char* kKlnSecurityEnabled = "com.orlane.zem.klnSecurity.enabled";

// Global properties of switches.
inline constexpr const char* kTeaming = "com.orlane.vswitch.teaming";
inline constexpr const char* kNamedTeaming = "com.orlane.vswitch.logicalswitch.teaming";
inline constexpr const char* kLacp = "com.orlane.etherswitch.lacp";

}  // namespace zem::zema::port_props
