#pragma once

#include "framework/log/log.h"

namespace zem::covedb {

/// The component of the store client's lines.
inline constexpr LogSource kLog{"tarvik", "covedb-client"};

}  // namespace zem::covedb

/// A refusal: at error level, with a bare tag.
#define COVEDB_REFUSE(tag, ...) ZLOG_TAGGED(::zem::kLogError, tag, __VA_ARGS__)
