#include "app/ctxteng/idsrecord/ids_event.h"

namespace IdsEvtEng {
namespace {

// Whether the line's source is the attacked side.
bool IsTurned(const IdsEvent& event) {
  if (event.flip_endpoints != kFlipNotSaid) return event.flip_endpoints == kFlipYes;
  return event.direction == kToClient;
}

}  // namespace

std::string LogText(const IdsEvent& event) {
  return "src:" + event.src_ip + ":" + std::to_string(event.src_port) + ",dest:" + event.dest_ip + ":" +
         std::to_string(event.dest_port) + ",prot:" + event.proto +
         ",sig:" + std::to_string(event.signature_id) + ",sev:" + std::to_string(event.severity) +
         ",vmId:" + event.vm_uuid + ",";
}

const std::string& AttackerOf(const IdsEvent& event) {
  const std::string& chosen = IsTurned(event) ? event.dest_ip : event.src_ip;
  if (event.target_ip.empty() || chosen == event.target_ip) return chosen;
  return &chosen == &event.src_ip ? event.dest_ip : event.src_ip;
}

uint32_t MergePortOf(const IdsEvent& event) { return IsTurned(event) ? event.src_port : event.dest_port; }

}  // namespace IdsEvtEng
