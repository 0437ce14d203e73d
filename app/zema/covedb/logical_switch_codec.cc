#include "app/zema/covedb/logical_switch_codec.h"

#include <string>

#include "covedbclient/codec/address_codec.h"
#include "framework/log/log.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/switching_objects.pb.h"
#include "proto/switching/logical_switch.pb.h"

namespace zem::zema {
namespace {

using orlane::zem::covedb::ObjectOpMsg;
using orlane::zem::covedb::OpaqueLogSwitchConfigMsg;
using Info = orlane::zem::switching::LogicalSwitchMsg::LogicalSwitchInfoMsg;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr uint32_t kSet = 0;
constexpr uint32_t kUpdate = 1;
constexpr uint32_t kClear = 2;

// Values that the update for a removal takes from the removed object.
void TakeNumbersAndName(const OpaqueLogSwitchConfigMsg& config, Info* info, std::string* log) {
  if (config.has_revision()) info->set_revision(config.revision());
  if (config.has_transport_zone_id()) info->set_transport_zone_id(UUID_ToString(config.transport_zone_id()));
  if (!config.has_name()) return;
  info->set_name(config.name());
  *log += "LS Name " + config.name();
}

}  // namespace

int DecodeOpaqueLogSwitchMsg(const OpaqueLogSwitchConfigMsg& config,
                             const orlane::zem::covedb::OpaqueLogSwitchConfigOpMsg& op,
                             const OpaqueLogSwitchConfigMsg& payload,
                             orlane::zem::switching::LogicalSwitchMsg* out) {
  Info& info = *out->add_logical_switch_info();
  std::string log;
  if (config.has_id()) info.set_logical_switch_id(UUID_ToString(config.id()));
  TakeNumbersAndName(config, &info, &log);
  if (config.has_segment_path()) {
    info.set_path(config.segment_path());
    log += "Segment Path " + config.segment_path();
  }
  switch (op.operation()) {
    case ObjectOpMsg::CLEAR:
      info.set_operation(kUpdate);
      log += " Update OP";
      break;
    case ObjectOpMsg::SET:
      info.set_operation(kSet);
      log += " Set OP";
      break;
    case ObjectOpMsg::DELETE:
      info.set_operation(kClear);
      log += " Clear OP";
      // The removed object may hold only its key, or nothing.
      if (!info.has_logical_switch_id() && payload.has_id()) {
        info.set_logical_switch_id(UUID_ToString(payload.id()));
      }
      TakeNumbersAndName(payload, &info, &log);
      break;
    default:
      ZLOG_WARN("[%s] Invalid enum for Logical switch operation", __func__);
  }
  ZLOG_DEBUG("LS Decoder [%s]", log.c_str());
  return 0;
}

}  // namespace zem::zema
