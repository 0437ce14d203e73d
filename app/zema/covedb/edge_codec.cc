#include "app/zema/covedb/edge_codec.h"

#include "covedbclient/codec/address_codec.h"
#include "framework/log/log.h"
#include "proto/config/config.pb.h"
#include "proto/covedb/switching_objects.pb.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

// Returns the first address of a group, or an empty text when the group has none.
std::string GroupAddress(const orlane::zem::config::AddressGroupMsg& group) {
  return group.address_size() > 0 ? group.address(0) : std::string();
}

void EncodeAddress(const std::string& text,
                   orlane::zem::covedb::IpAddressMsg* (orlane::zem::covedb::ControllerInfoMsg::*field)(),
                   orlane::zem::covedb::ControllerInfoMsg* out) {
  orlane::zem::covedb::IpAddressMsg address;
  if (text.empty() || EncodeIpAddressMsg(text, &address) != 0) return;
  *(out->*field)() = std::move(address);
}

void EncodeController(const orlane::zem::config::ControllerInfoMsg& controller,
                      orlane::zem::covedb::ControllerInfoMsg* out) {
  using Stored = orlane::zem::covedb::ControllerInfoMsg;
  *out->mutable_uuid() = controller.uuid();
  EncodeAddress(
      controller.has_ipv4_address() ? controller.ipv4_address() : GroupAddress(controller.ipv4_group()),
      &Stored::mutable_ipv4_address, out);
  if (controller.ipv4_group().has_host_name()) out->set_fqdn(controller.ipv4_group().host_name());
  if (controller.has_port()) out->set_port(controller.port());
  EncodeAddress(
      controller.has_ipv6_address() ? controller.ipv6_address() : GroupAddress(controller.ipv6_group()),
      &Stored::mutable_ipv6_address, out);
  if (controller.ipv6_group().has_host_name()) out->set_ipv6_fqdn(controller.ipv6_group().host_name());
  if (controller.has_ipv6_port()) out->set_ipv6_port(controller.ipv6_port());
  if (controller.has_version()) *out->mutable_version() = controller.version();
  if (controller.has_ssl_enabled()) out->set_ssl_enabled(controller.ssl_enabled());
  if (controller.has_certificate()) out->set_certificate(controller.certificate());
}

}  // namespace

int EncodeMaintenanceModeConfigMsg(const orlane::zem::switching::MaintenanceModeConfigMsg& message,
                                   orlane::zem::covedb::MaintenanceModeConfigMsg* out) {
  if (!UUID_FromString(message.id(), out->mutable_id())) {
    ZLOG_ERROR("44093", "Failed to set key for MaintenanceModeConfigMsg");
    out->clear_id();
    return -1;
  }
  if (message.has_transport_node_id() &&
      !UUID_FromString(message.transport_node_id(), out->mutable_transport_node_id())) {
    out->clear_transport_node_id();
    ZLOG_WARN("[%s] transport node id [%s] is no uuid", __func__, message.transport_node_id().c_str());
  }
  if (message.has_revision()) out->set_revision(message.revision());
  if (message.has_state()) out->set_state(message.state() + 1);
  return 0;
}

int EncodeControllerInfoMsgs(const orlane::zem::config::MpLcpMsg& message,
                             std::list<orlane::zem::covedb::ControllerInfoMsg>* out) {
  if (message.update().controller_size() == 0) {
    ZLOG_ERROR("44091", "Controller count is zero");
    return -1;
  }
  for (const auto& controller : message.update().controller()) {
    if (!controller.has_uuid()) {
      ZLOG_ERROR("44093", "Failed to set key for ControllerInfoMsg");
      continue;
    }
    EncodeController(controller, &out->emplace_back());
  }
  return 0;
}

}  // namespace zem::zema
