#include "agent/build_info.h"

#ifndef ZEM_BUILD_NUMBER
#define ZEM_BUILD_NUMBER "0"
#endif

namespace zem {

const char* BuildInfo::c_str() { return "zem-tarvik-" ZEM_BUILD_NUMBER; }

}  // namespace zem
