#pragma once

namespace zem {

/// What this binary was built from.
class BuildInfo {
 public:
  static const char* c_str();
};

}  // namespace zem
