#include "app/zema/ports/vif_request.h"

#include <atomic>

#include "app/zema/ports/vif_timelines.h"

namespace zem::zema {
namespace {

struct KindName {
  int32_t kind;
  const char* name;
};

constexpr KindName kNames[] = {
    {VifRequest::kUnsupported, "NO_OP"},
    {VifRequest::kAttach, "CORVD_ATTACH_PORT"},
    {VifRequest::kDetach, "CORVD_DETACH_PORT"},
    {VifRequest::kAttachToVifUuid, "CORVD_ATTACH_PORT_TO_VIF_UUID"},
    {VifRequest::kAttachLiveMove, "ATTACH_PORT_LIVEMOVE"},
    {VifRequest::kDetachLiveMove, "DETACH_PORT_LIVEMOVE"},
    {VifRequest::kRestore, "restore"},
    {VifRequest::kSyncAttach, "SYNC_ATTACH_PORT"},
    {VifRequest::kSyncDetach, "SYNC_DETACH_PORT"},
    {VifRequest::kManagerDetach, "MP_DETACH_PORT"},
    {VifRequest::kFetchSiteConfig, "CORVD_FETCH_SITECONFIG"},
};

std::atomic<bool> keeps_timelines{true};

}  // namespace

std::string VifRequest::KindText() const {
  for (const KindName& known : kNames) {
    if (known.kind == op_code) return known.name;
  }
  return "unknown opCode: " + std::to_string(op_code);
}

std::string VifRequest::ToString() const {
  return "opId:[ " + op_id + " ] op:[ " + KindText() + "( " + std::to_string(op_code) + " )] vif:[" + vif_id +
         "] ls:[" + ls_id + "] gcf:[" + gcf_path + "] lp:[" + port_id + "]";
}

void KeepVifTimelines(bool keep) { keeps_timelines = keep; }

void VifRequest::BeginTimeline() {
  if (!keeps_timelines.load(std::memory_order_relaxed)) return;
  carried = timeline::Carried(
      timeline::Begin(timeline::Kind::kVif, KindText(), {op_id, vif_id, ls_id, port_id, gcf_path}));
}

}  // namespace zem::zema
