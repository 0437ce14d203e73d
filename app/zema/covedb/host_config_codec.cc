#include "app/zema/covedb/host_config_codec.h"

#include <bson/bson.h>

#include <charconv>
#include <optional>
#include <utility>

#include "covedbclient/codec/address_codec.h"
#include "covedbclient/codec/enum_codec.h"
#include "framework/log/log.h"
#include "proto/covedb/switching_objects.pb.h"
#include "proto/switching/switching.pb.h"

// Both directions name every field once, in the order of the messages, so that a reader who compares them
// side by side sees a missing field.  `in` and `out` are the two messages of every function.

namespace zem::zema {
namespace {

namespace manager = orlane::zem::switching;
namespace store = orlane::zem::covedb;
using orlane::zem::UuidMsg;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr size_t kMaxHeader = 64 * 1024;

// Copies a field of the same name and type, if it is present.
#define COPY(field) \
  if (in.has_##field()) out->set_##field(in.field())
#define ENCODE_UUID(field)                                                      \
  if (in.has_##field() && !UUID_FromString(in.field(), out->mutable_##field())) \
  NoUuid(#field, in.field(), out)->clear_##field()
#define DECODE_UUID(field) \
  if (in.has_##field()) out->set_##field(UUID_ToString(in.field()))
#define ENCODE_ENUM(field, rule) \
  if (in.has_##field()) out->set_##field(static_cast<int>(in.field()) + (rule).shift)
#define DECODE_ENUM(field, rule, type)                                                  \
  if (const auto value = in.has_##field() ? FromStore(rule, in.field()) : std::nullopt) \
  out->set_##field(static_cast<type>(*value))

template <class Out>
Out* NoUuid(const char* field, const std::string& text, Out* out) {
  if (!text.empty()) ZLOG_WARN("[%s] %s [%s] is no uuid", "EncodeHostConfigMsg", field, text.c_str());
  return out;
}

std::optional<int> FromStore(const EnumRule& rule, int stored) {
  if (stored >= rule.first && stored <= rule.last) return stored - rule.shift;
  ZLOG_ERROR("44095", "Exception: %s", rule.error);
  return std::nullopt;
}

// Converts messages that have the same fields in both families, field by field.
template <class In, class Out>
void CopyMessage(const In& in, Out* out) {
  out->ParsePartialFromString(in.SerializePartialAsString());
}

template <class In, class Out, class Convert>
void CopyEach(const In& in, Out* out, Convert convert) {
  out->Reserve(in.size());
  for (const auto& message : in) convert(message, out->Add());
}

template <class In, class Out>
void CopyEach(const In& in, Out* out) {
  CopyEach(in, out, [](const auto& message, auto* copy) { CopyMessage(message, copy); });
}

template <class Stored>
bool EncodeIp(const std::string& text, Stored* out);
template <>
bool EncodeIp(const std::string& text, store::IpAddressMsg* out) {
  return EncodeIpAddressMsg(text, out) == 0;
}
template <>
bool EncodeIp(const std::string& text, store::IpSubnetAddressMsg* out) {
  return EncodeIpSubnetAddressMsg(text, out) == 0;
}
#define ENCODE_IP(field) \
  if (in.has_##field() && !EncodeIp(in.field(), out->mutable_##field())) out->clear_##field()
#define DECODE_IP(field, decode) \
  if (std::string text; in.has_##field() && decode(in.field(), &text) == 0) out->set_##field(text)

// --- Profiles.

void EncodeUplink(const manager::UplinkMsg& in, store::UplinkMsg* out) {
  COPY(name);
  ENCODE_ENUM(type, kUplinkTypeRule);
}

void DecodeUplink(const store::UplinkMsg& in, manager::UplinkMsg* out) {
  COPY(name);
  DECODE_ENUM(type, kUplinkTypeRule, manager::UplinkMsg::UplinkType);
}

void EncodeLag(const manager::LagConfigMsg& in, store::LagConfigMsg* out) {
  COPY(name);
  COPY(uplink_count);
  ENCODE_ENUM(mode, kLacpModeRule);
  ENCODE_ENUM(load_balance_algo, kLoadBalanceRule);
  ENCODE_ENUM(timeout_type, kLacpTimeoutRule);
  COPY(number);
}

void DecodeLag(const store::LagConfigMsg& in, manager::LagConfigMsg* out) {
  COPY(name);
  COPY(uplink_count);
  DECODE_ENUM(mode, kLacpModeRule, manager::LagConfigMsg::LacpMode);
  DECODE_ENUM(load_balance_algo, kLoadBalanceRule, manager::LagConfigMsg::LoadBalanceAlgo);
  DECODE_ENUM(timeout_type, kLacpTimeoutRule, manager::LagConfigMsg::LacpTimeoutType);
  COPY(number);
}

void EncodeUplinkProfile(const manager::UplinkProfileMsg& in, store::UplinkProfileMsg* out) {
  ENCODE_ENUM(teaming_policy, kTeamingPolicyRule);
  CopyEach(in.active_uplink(), out->mutable_active_uplink(), EncodeUplink);
  CopyEach(in.standby_uplink(), out->mutable_standby_uplink(), EncodeUplink);
  CopyEach(in.lag(), out->mutable_lag(), EncodeLag);
  COPY(rolling_order);
}

void DecodeUplinkProfile(const store::UplinkProfileMsg& in, manager::UplinkProfileMsg* out) {
  DECODE_ENUM(teaming_policy, kTeamingPolicyRule, manager::UplinkProfileMsg::TeamingPolicyType);
  CopyEach(in.active_uplink(), out->mutable_active_uplink(), DecodeUplink);
  CopyEach(in.standby_uplink(), out->mutable_standby_uplink(), DecodeUplink);
  CopyEach(in.lag(), out->mutable_lag(), DecodeLag);
  COPY(rolling_order);
}

void EncodeNamedUplinkProfile(const manager::NamedUplinkProfileMsg& in, store::NamedUplinkProfileMsg* out) {
  COPY(name);
  if (in.has_uplink_profile()) EncodeUplinkProfile(in.uplink_profile(), out->mutable_uplink_profile());
}

void DecodeNamedUplinkProfile(const store::NamedUplinkProfileMsg& in, manager::NamedUplinkProfileMsg* out) {
  COPY(name);
  if (in.has_uplink_profile()) DecodeUplinkProfile(in.uplink_profile(), out->mutable_uplink_profile());
}

void EncodeHighPerformanceConfig(const manager::HighPerformanceConfigMsg& in,
                                 store::HighPerformanceConfigMsg* out) {
  ENCODE_ENUM(type, kHighPerformanceTypeRule);
  CopyEach(in.config_pair(), out->mutable_config_pair());
}

void DecodeHighPerformanceConfig(const store::HighPerformanceConfigMsg& in,
                                 manager::HighPerformanceConfigMsg* out) {
  DECODE_ENUM(type, kHighPerformanceTypeRule, manager::HighPerformanceConfigTypeEnum);
  CopyEach(in.config_pair(), out->mutable_config_pair());
}

// The endpoints' high availability is not stored.
void EncodeProfiles(const manager::HostSwitchProfilesMsg& in, store::HostSwitchProfilesMsg* out) {
  if (in.has_uplink_profile()) EncodeUplinkProfile(in.uplink_profile(), out->mutable_uplink_profile());
  if (in.has_lldp_profile()) CopyMessage(in.lldp_profile(), out->mutable_lldp_profile());
  if (in.has_extra_configs_profile()) {
    CopyMessage(in.extra_configs_profile(), out->mutable_extra_configs_profile());
  }
  CopyEach(in.named_uplink_profile(), out->mutable_named_uplink_profile(), EncodeNamedUplinkProfile);
  if (in.has_high_performance_profile()) {
    CopyEach(in.high_performance_profile().config(),
             out->mutable_high_performance_profile()->mutable_config(), EncodeHighPerformanceConfig);
  }
}

void DecodeProfiles(const store::HostSwitchProfilesMsg& in, manager::HostSwitchProfilesMsg* out) {
  if (in.has_uplink_profile()) DecodeUplinkProfile(in.uplink_profile(), out->mutable_uplink_profile());
  if (in.has_lldp_profile()) CopyMessage(in.lldp_profile(), out->mutable_lldp_profile());
  if (in.has_extra_configs_profile()) {
    CopyMessage(in.extra_configs_profile(), out->mutable_extra_configs_profile());
  }
  CopyEach(in.named_uplink_profile(), out->mutable_named_uplink_profile(), DecodeNamedUplinkProfile);
  if (in.has_high_performance_profile()) {
    CopyEach(in.high_performance_profile().config(),
             out->mutable_high_performance_profile()->mutable_config(), DecodeHighPerformanceConfig);
  }
  if (in.has_network_resource_profile()) {
    ZLOG_DEBUG("[%s] BWCTL profile not present, skipping it.", "DecodeHostSwitchProfiles");
  }
}

// --- Endpoints.

// Returns nothing for an empty text; a text that is not a number is logged.
std::optional<unsigned> PrefixLength(const std::string& text) {
  if (text.empty()) return 0;
  unsigned number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc() && end == text.data() + text.size() && number <= 128) return number;
  ZLOG_WARN("[%s] IPv6 prefix length [%s] is no number from 0 to 128", "EncodeHostSwitchMsg", text.c_str());
  return std::nullopt;
}

void EncodeAddress(const std::string& text, unsigned prefix, store::VtepMsg* out) {
  if (EncodeIpAddressWithPrefixMsg(text, prefix, out->add_address()) != 0)
    out->mutable_address()->RemoveLast();
}

void EncodeVtep(const manager::VtepMsg& in, unsigned ipv6_prefix, store::VtepMsg* out) {
  if (!in.ipv4_address().empty()) EncodeAddress(in.ipv4_address(), 0, out);
  COPY(device_name);
  if (in.has_mac()) CopyMessage(in.mac(), out->mutable_mac());
  COPY(state);
  if (!in.ipv6_address().empty()) EncodeAddress(in.ipv6_address(), ipv6_prefix, out);
}

void DecodeVtep(const store::VtepMsg& in, manager::VtepMsg* out, manager::HostSwitchMsg* host_switch) {
  for (const store::IpAddressWithPrefixMsg& address : in.address()) {
    std::string text;
    unsigned prefix = 0;
    if (DecodeIpAddressWithPrefixMsg(address, &text, &prefix) != 0 || text.empty()) continue;
    if (address.address().has_ipv4()) {
      out->set_ipv4_address(text);
      continue;
    }
    out->set_ipv6_address(text);
    if (prefix != 0) host_switch->set_ipv6_prefix_length(std::to_string(prefix));
  }
  COPY(device_name);
  if (in.has_mac()) CopyMessage(in.mac(), out->mutable_mac());
  COPY(state);
}

template <class In>
void EncodeUuids(const In& in, const char* field, google::protobuf::RepeatedPtrField<UuidMsg>* out) {
  for (const std::string& text : in) {
    UuidMsg uuid;
    if (UUID_FromString(text, &uuid)) {
      *out->Add() = uuid;
    } else {
      NoUuid(field, text, out);
    }
  }
}

template <class Out>
void DecodeUuids(const google::protobuf::RepeatedPtrField<UuidMsg>& in, Out* out) {
  for (const UuidMsg& uuid : in) *out->Add() = UUID_ToString(uuid);
}

// --- Migration.

void EncodeToLogicalSwitch(const manager::QubMgmtIfToLogicSwitchMsg& in,
                           store::QubMgmtIfToLogicSwitchMsg* out) {
  COPY(device);
  COPY(lswitch_id);
  ENCODE_UUID(host_switch_id);
  ENCODE_UUID(vif_id);
  ENCODE_UUID(logical_port_id);
  ENCODE_UUID(previous_vif_id);
  ENCODE_UUID(previous_logical_port_id);
  COPY(label);
  COPY(is_vtep);
  CopyEach(in.vlan_range(), out->mutable_vlan_range());
  CopyEach(in.extra_configs(), out->mutable_extra_configs());
  COPY(init_state);
  COPY(port_flags);
  COPY(tail_number);
  ENCODE_UUID(transport_zone_id);
  COPY(vlan);
  COPY(uplink_teaming_name);
  COPY(port_group);
  COPY(gcf_path);
}

void DecodeToLogicalSwitch(const store::QubMgmtIfToLogicSwitchMsg& in,
                           manager::QubMgmtIfToLogicSwitchMsg* out) {
  COPY(device);
  COPY(lswitch_id);
  DECODE_UUID(host_switch_id);
  DECODE_UUID(vif_id);
  DECODE_UUID(logical_port_id);
  DECODE_UUID(previous_vif_id);
  DECODE_UUID(previous_logical_port_id);
  COPY(label);
  COPY(is_vtep);
  CopyEach(in.vlan_range(), out->mutable_vlan_range());
  CopyEach(in.extra_configs(), out->mutable_extra_configs());
  COPY(init_state);
  COPY(port_flags);
  COPY(tail_number);
  DECODE_UUID(transport_zone_id);
  COPY(vlan);
  COPY(uplink_teaming_name);
  COPY(port_group);
  COPY(gcf_path);
}

void EncodeToPln(const manager::QubMgmtIfToPlnMsg& in, store::QubMgmtIfToPlnMsg* out) {
  COPY(device);
  COPY(port_group);
  ENCODE_UUID(host_switch_id);
  ENCODE_UUID(previous_vif_id);
  ENCODE_UUID(previous_logical_port_id);
}

void DecodeToPln(const store::QubMgmtIfToPlnMsg& in, manager::QubMgmtIfToPlnMsg* out) {
  COPY(device);
  COPY(port_group);
  DECODE_UUID(host_switch_id);
  DECODE_UUID(previous_vif_id);
  DECODE_UUID(previous_logical_port_id);
}

void EncodePing(const manager::QubKnlPingIpMsg& in, store::QubKnlPingIpMsg* out) {
  ENCODE_UUID(host_switch_id);
  ENCODE_IP(ping_ip);
}

void DecodePing(const store::QubKnlPingIpMsg& in, manager::QubKnlPingIpMsg* out) {
  DECODE_UUID(host_switch_id);
  DECODE_IP(ping_ip, DecodeIpAddressMsg);
}

void EncodeMigration(const manager::QubMgmtIfMigrationMsg& in, store::QubMgmtIfMigrationMsg* out) {
  CopyEach(in.to_lswitches(), out->mutable_to_lswitches(), EncodeToLogicalSwitch);
  CopyEach(in.to_vsw_or_psw(), out->mutable_to_vsw_or_psw(), EncodeToPln);
  CopyEach(in.knl_ping_ip(), out->mutable_knl_ping_ip(), EncodePing);
}

void DecodeMigration(const store::QubMgmtIfMigrationMsg& in, manager::QubMgmtIfMigrationMsg* out) {
  CopyEach(in.to_lswitches(), out->mutable_to_lswitches(), DecodeToLogicalSwitch);
  CopyEach(in.to_vsw_or_psw(), out->mutable_to_vsw_or_psw(), DecodeToPln);
  CopyEach(in.knl_ping_ip(), out->mutable_knl_ping_ip(), DecodePing);
}

// --- The headers of the manager's message.

int DecodeHeaders(const std::string& header, std::string* correlation_id, std::string* reply_to) {
  bson_t document;
  bson_iter_t element;
  if (header.empty() || header.size() > kMaxHeader ||
      !bson_init_static(&document, reinterpret_cast<const uint8_t*>(header.data()), header.size()) ||
      !bson_validate(&document, BSON_VALIDATE_UTF8, nullptr) || !bson_iter_init(&element, &document)) {
    ZLOG_WARN("AMQP headers not found for Realized HostConfigMsg\n");
    return -1;
  }
  ZLOG_DEBUG("[%s] Iterating headers of HostConfigMsg response...\n", "DecodeHostConfigMsg");
  while (bson_iter_next(&element)) {
    if (!BSON_ITER_HOLDS_UTF8(&element)) {
      ZLOG_DEBUG("BSON Type [%d]\n", static_cast<int>(bson_iter_type(&element)));
      continue;
    }
    uint32_t length = 0;
    const std::string_view key = bson_iter_key(&element);
    const char* const text = bson_iter_utf8(&element, &length);
    ZLOG_DEBUG("BSON_STRING key:[%s] value:[%s]\n", bson_iter_key(&element), text);
    if (key == "amqp_correlationId") correlation_id->assign(text, length);
    if (key == "amqp_replyTo") reply_to->assign(text, length);
  }
  ZLOG_DEBUG("Iterating headers done\n");
  return 0;
}

}  // namespace

void EncodeHostSwitchMsg(const manager::HostSwitchMsg& in, store::HostSwitchMsg* out) {
  ENCODE_UUID(id);
  COPY(name);
  COPY(type);
  COPY(mtu);
  EncodeUuids(in.transport_zone_id(), "transport_zone_id", out->mutable_transport_zone_id());
  EncodeUuids(in.transport_zone_profile_id(), "transport_zone_profile_id",
              out->mutable_transport_zone_profile_id());
  CopyEach(in.pnic(), out->mutable_pnic());
  if (in.has_profiles()) EncodeProfiles(in.profiles(), out->mutable_profiles());
  ENCODE_ENUM(switch_mode, kSwitchModeRule);
  CopyEach(in.cpu_config(), out->mutable_cpu_config());
  COPY(overlay);
  COPY(vif_collection_status);
  COPY(snic_offload);
  const std::optional<unsigned> prefix = PrefixLength(in.ipv6_prefix_length());
  CopyEach(in.vteps(), out->mutable_vteps(), [&prefix](const manager::VtepMsg& vtep, store::VtepMsg* stored) {
    EncodeVtep(vtep, prefix.value_or(0), stored);
  });
  ENCODE_IP(default_gateway);
  ENCODE_IP(subnet_mask);
  ENCODE_IP(ipv6_default_gateway);
  if (in.has_ipv6_prefix_length() && prefix) out->set_ipv6_prefix_length(*prefix);
  COPY(transport_vlan);
  COPY(vtep_mtu);
  COPY(static_address);
  COPY(ipv6_dhcp);
  COPY(ipv6_auto_conf);
  CopyEach(in.vlan_range(), out->mutable_vlan_range());
  COPY(vdr_mac);
  COPY(security);
}

void DecodeHostSwitchProfiles(const store::HostSwitchMsg& in, manager::HostSwitchMsg* out) {
  DECODE_UUID(id);
  if (in.has_profiles()) DecodeProfiles(in.profiles(), out->mutable_profiles());
  CopyEach(in.pnic(), out->mutable_pnic());
  if (in.has_ipv6_prefix_length()) {
    out->set_ipv6_prefix_length(in.ipv6_prefix_length() == 0 ? std::string()
                                                             : std::to_string(in.ipv6_prefix_length()));
  }
  CopyEach(in.vteps(), out->mutable_vteps(),
           [out](const store::VtepMsg& stored, manager::VtepMsg* vtep) { DecodeVtep(stored, vtep, out); });
  CopyEach(in.vlan_range(), out->mutable_vlan_range());
  COPY(mtu);
  COPY(vtep_mtu);
  COPY(transport_vlan);
  COPY(name);
  COPY(type);
  DecodeUuids(in.transport_zone_id(), out->mutable_transport_zone_id());
  DecodeUuids(in.transport_zone_profile_id(), out->mutable_transport_zone_profile_id());
  DECODE_IP(subnet_mask, DecodeIpSubnetAddressMsg);
  DECODE_IP(default_gateway, DecodeIpAddressMsg);
  DECODE_IP(ipv6_default_gateway, DecodeIpAddressMsg);
  COPY(overlay);
  COPY(vif_collection_status);
  COPY(snic_offload);
  COPY(static_address);
  COPY(ipv6_dhcp);
  COPY(ipv6_auto_conf);
  COPY(vdr_mac);
  COPY(security);
  DECODE_ENUM(switch_mode, kSwitchModeRule, manager::HostSwitchMsg::SwitchMode);
  CopyEach(in.cpu_config(), out->mutable_cpu_config());
}

int EncodeHostConfigMsg(const manager::HostConfigMsg& in, store::RealizedHostConfigMsg* out) {
  if (!UUID_FromString(in.id(), out->mutable_id())) {
    out->clear_id();
    ZLOG_ERROR("44093", "Failed to set key for hostConfigMsg");
    return -1;
  }
  COPY(revision);
  COPY(store_text);
  ENCODE_UUID(transport_node_id);
  CopyEach(in.host_switches(), out->mutable_host_switches(), EncodeHostSwitchMsg);
  if (in.has_qub_if_migration()) EncodeMigration(in.qub_if_migration(), out->mutable_qub_if_migration());
  COPY(zem_down);
  ENCODE_ENUM(phase, kPhaseRule);
  COPY(is_mp_host_profile_enabled);
  COPY(error_code);
  COPY(error_text);
  out->mutable_endpoint_ids()->CopyFrom(in.endpoint_ids());
  return 0;
}

int DecodeHostConfigMsg(const store::RealizedHostConfigMsg& in, manager::HostConfigMsg* out,
                        std::string* correlation_id, std::string* reply_to) {
  DECODE_UUID(id);
  DECODE_UUID(transport_node_id);
  COPY(revision);
  COPY(store_text);
  CopyEach(in.host_switches(), out->mutable_host_switches(), DecodeHostSwitchProfiles);
  if (in.has_qub_if_migration()) DecodeMigration(in.qub_if_migration(), out->mutable_qub_if_migration());
  COPY(zem_down);
  DECODE_ENUM(phase, kPhaseRule, manager::HostConfigMsg::Phase);
  COPY(is_mp_host_profile_enabled);
  COPY(error_code);
  COPY(error_text);
  out->mutable_endpoint_ids()->CopyFrom(in.endpoint_ids());
  return DecodeHeaders(in.amqp_header().header(), correlation_id, reply_to);
}

}  // namespace zem::zema
