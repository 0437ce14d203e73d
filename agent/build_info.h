#pragma once

namespace zem {

/// The version that this binary was built from.
class BuildInfo {
 public:
  static const char* c_str();
};

}  // namespace zem
