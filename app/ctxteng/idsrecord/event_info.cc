#include "app/ctxteng/idsrecord/event_info.h"

#include "app/ctxteng/idsrecord/event_time.h"
#include "app/ctxteng/idsrecord/ids_event.h"
#include "app/ctxteng/idsrecord/ip_address.h"
#include "app/ctxteng/idsrecord/url_parts.h"
#include "proto/context/ids.pb.h"

namespace IdsEvtEng {
namespace {

using orlane::zem::context::ids::EventInfo;

constexpr const char* kUnknownUser = "0";

// The destination is the attacked side, whichever side the line's source is.
void SetEndpoints(const IdsEvent& event, EventInfo* info) {
  if (event.src_ip.empty() || event.dest_ip.empty() || event.src_port == kNotSet ||
      event.dest_port == kNotSet)
    return;
  const bool source_is_target = event.src_ip == event.target_ip;
  EncodeAddress(source_is_target ? event.dest_ip : event.src_ip, info->mutable_src_ip());
  EncodeAddress(source_is_target ? event.src_ip : event.dest_ip, info->mutable_dest_ip());
  info->set_src_port(source_is_target ? event.dest_port : event.src_port);
  info->set_dest_port(source_is_target ? event.src_port : event.dest_port);
  if (event.flow_match != kNoMatch)
    info->set_flow_match((event.flow_match == kSourceMatches) != source_is_target);
}

void SetWhere(const IdsEvent& event, const EventLookups& lookups, EventInfo* info) {
  info->set_vm_uuid(event.vm_uuid);
  if (event.rule_id != kNotSet) {
    info->set_rule_id(event.rule_id);
    if (!lookups.tenant(event.rule_id, info->mutable_tenant_context())) info->clear_tenant_context();
  }
  if (event.user_id != 0) info->set_user_name(lookups.user_name(event.user_id).value_or(kUnknownUser));
  if (event.vnic_id != kNotSet) info->set_vnic_id(event.vnic_id);
  info->set_lsp_uuid(event.lsp_uuid);
  info->set_profile_id(event.profile_id);
}

void AddPair(const char* name, const std::string& value, EventInfo* info) {
  if (value.empty()) return;
  auto* const pair = info->add_event_metadata();
  pair->set_name(name);
  pair->set_value(value);
}

std::string TextOf(uint32_t number) { return number == kNotSet ? "" : std::to_string(number); }

}  // namespace

void BuildEventInfo(const IdsEvent& event, const EventLookups& lookups, EventInfo* info) {
  if (event.signature_id != kNotSet) info->set_signature_id(event.signature_id);
  if (!event.signature.empty()) info->set_signature(event.signature);
  SetEndpoints(event, info);
  if (event.flow_dir != 0) info->set_flow_dir(event.flow_dir == 1);
  info->set_proto(event.proto);
  info->set_app_proto(event.app_proto);
  if (event.session_dir != 0) info->set_session_dir(event.session_dir);
  if (event.event_dir != 0) info->set_event_dir(event.event_dir);
  info->set_timestamp(EpochSeconds(event.timestamp));
  if (event.severity != -1) info->set_severity(event.severity);
  info->set_count(event.count);
  SetWhere(event, lookups, info);
  if (event.bytes_to_server != 0) info->set_bytes_to_server(event.bytes_to_server);
  if (event.bytes_to_client != 0) info->set_bytes_to_client(event.bytes_to_client);
  if (event.action != kActionNotSet) info->set_action(event.action);
  if (event.flow_id != 0 && event.snip_ts_us != 0) SetCaptureId(event, info->mutable_pcap_id());
}

void AddMetadata(const IdsEvent& event, EventInfo* info) {
  AddPair("http_hostname", event.http_hostname, info);
  AddPair("http_port", TextOf(event.http_port), info);
  if (!event.http_url.empty()) {
    const UrlParts parts = SplitUrl(event.http_url);
    AddPair("url_scheme", parts.scheme, info);
    AddPair("url_host", parts.host, info);
    AddPair("url_port", parts.port, info);
    AddPair("url_path", parts.path, info);
  }
  AddPair("detector_id", TextOf(event.detector_id), info);
  AddPair("ids_mode", event.ids_mode, info);
}

void SetCaptureId(const IdsEvent& event, orlane::zem::UuidMsg* id) {
  id->set_first(event.flow_id);
  id->set_second(event.snip_ts_us);
}

}  // namespace IdsEvtEng
