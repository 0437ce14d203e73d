#pragma once

#include <string>

namespace zem::zema {

/// A port, named by its switch and its key on that switch.
struct PortLocation {
  std::string dvs;
  std::string port;
};

}  // namespace zem::zema
