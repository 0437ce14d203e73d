#include "app/zemda/records/vif_msg_handler.h"

#include <algorithm>
#include <string>
#include <utility>

#include "framework/log/log.h"
#include "proto/covedb/inventory_objects.pb.h"
#include "proto/covedb/object_type.pb.h"

namespace ZemDa {
namespace {

using orlane::zem::covedb::DaVifMsg;

constexpr zem::LogSource kLog{"tarvik", "zemda"};

std::optional<std::string> KeyOf(const std::string& object) {
  DaVifMsg vif;
  if (!vif.ParseFromString(object)) return std::nullopt;
  return vif.vif_id();
}

constexpr RecordKind kKind{.type = orlane::zem::covedb::DA_VIF,
                           .key_of = &KeyOf,
                           .timed_out = "Get DaVifStateMsg from CoveDB timed out",
                           .refused = "GET DaVifStateMsg request failed.",
                           .tag = "MPA21009",
                           .older = "Older callback received %d, current %d.",
                           .bad_status = "Error reading DaVifStateMsg",
                           .unreadable = "Error: Unable to parse VifMsg from coveDb",
                           .added = "Adding VIF with id %s to cached list"};

}  // namespace

VifMsgHandler::VifMsgHandler(std::shared_ptr<CoveDBConnectionHandler> store, Interruption* interruption)
    : records_(std::move(store), kKind, interruption) {}

void VifMsgHandler::ModifyVif(const DaVifMsg& vif) {
  if (vif.vif_id().empty()) {
    ZLOG_ERROR("MPA21008", "ModifyVif() received a vifMsg with no vif_id set. Aborting call");
    return;
  }
  ZLOG_INFO("Writing vif msg to CoveDB %s", vif.ShortDebugString().c_str());
  records_.Put(vif.vif_id(), vif.SerializeAsString());
}

void VifMsgHandler::DeleteVif(const DaVifMsg& vif) {
  if (vif.vif_id().empty()) {
    ZLOG_ERROR("MPA21008", "DeleteVif() received a vifMsg with no vif_id set. Aborting call");
    return;
  }
  ZLOG_INFO("Deleting vif msg from CoveDB %s", vif.ShortDebugString().c_str());
  records_.Delete(vif.vif_id(), vif.SerializeAsString());
}

bool VifMsgHandler::GetVif(DaVifMsg* vif) {
  if (vif == nullptr) {
    ZLOG_ERROR("MPA21009", "Reference to DaVifMsg passed is NULL");
    return false;
  }
  const std::string id = vif->vif_id();
  DaVifMsg wanted;
  wanted.set_vif_id(id);
  const auto objects = records_.Read(id, wanted.SerializeAsString());
  if (!objects) return false;
  if (objects->size() > 1) ZLOG_WARN("More than 1 Vif was returned from coveDb with VIF ID:%s.", id.c_str());
  return std::ranges::any_of(*objects, [&](const std::string& object) {
    DaVifMsg found;
    if (!found.ParseFromString(object) || found.vif_id() != id) return false;
    *vif = std::move(found);
    return true;
  });
}

}  // namespace ZemDa
