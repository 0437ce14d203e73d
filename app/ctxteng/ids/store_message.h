#pragma once

#include <string>

#include "framework/log/log.h"
#include "proto/covedb/covedb.pb.h"

namespace Ctxt {

/// False, after a log line, when the update is of another type: its bytes would be read as what they are not.
inline bool IsOfType(const orlane::zem::covedb::MonitorUpdateMsg& update,
                     orlane::zem::covedb::ObjectType expected) {
  constexpr zem::LogSource kLog{"tarvik", "ctxteng"};
  if (update.object_type() == expected) return true;
  ZLOG_CTX_ERROR(354, "Ids: CoveDB returned an incorrect msg type: %d, expecting %d",
                 static_cast<int>(update.object_type()), static_cast<int>(expected));
  return false;
}

}  // namespace Ctxt
