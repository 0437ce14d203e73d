#include "app/zema/hostlib/port_walk.h"

#include "app/zema/hostlib/switch_library.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

}  // namespace

bool PortWalk::Visit(const Visitor& visitor) {
  std::string key;  // one allocation for all ports
  for (const std::string& dvs : switches_) {
    PortList ports;
    const uint32_t result = library_.SwitchPortList(dvs, &ports);
    if (result == kSwitchNotFound) {
      ZLOG_INFO("[PortOp] Switch [%s] is not found, it has no ports to list", dvs.c_str());
      continue;
    }
    if (result != 0) {
      ZLOG_ERROR("44209", "[PortOp] Failed to list ports of switch [%s], error code [%s]", dvs.c_str(),
                 SwitchErrorText(result).c_str());
      ++failed_;
      continue;
    }
    for (size_t i = 0; i < ports.size(); ++i) {
      key = ports[i];
      if (visitor(dvs, key)) return true;
    }
  }
  return false;
}

}  // namespace zem::zema
