#include "app/zema/app/host_vif_requests.h"

#include "app/zema/ports/port_description.h"
#include "app/zema/ports/vif_request.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

using orlane::zem::switching::VifAttachmentMsg;

constexpr const char* kSecurityOnly = "SECURITY_ONLY";

std::shared_ptr<VifRequest> RequestOf(const VifAttachmentMsg& vif, int32_t op_code) {
  auto request = std::make_shared<VifRequest>();
  request->op_code = op_code;
  request->op_id = vif.operation_id();
  request->vif_id = vif.vif_id();
  request->ls_id = vif.logical_switch_id();
  request->port_id = vif.logical_port_id();
  request->zone_id = vif.transport_zone_id();
  request->gcf_path = vif.gcf_path();
  request->state_text = vif.state();
  return request;
}

}  // namespace

void HostVifRequests::Detach(const VifAttachmentMsg& vif) {
  add_request_(RequestOf(vif, VifRequest::kManagerDetach));
}

void HostVifRequests::Restore(const VifAttachmentMsg& vif) {
  auto request = RequestOf(vif, VifRequest::kRestore);
  if (vif.init_port_state().state() == kSecurityOnly) {
    request->security_switch_id = vif.dv_port().switch_id();
    request->spec = std::make_shared<PortConfigSpec>();
    request->spec->port_id = vif.dv_port().port_id();
    request->spec->init_state = kSecurityOnly;
  }
  add_request_(std::move(request));
}

}  // namespace zem::zema
