#pragma once

#include <string>

namespace zem::zema {

/// Where a port is.
struct PortLocation {
  std::string dvs;
  std::string port;
};

}  // namespace zem::zema
