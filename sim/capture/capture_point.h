#pragma once

#include <string>

namespace zem::sim::capture {

/// The devices of a capture point: what the guest sends at its end comes in at the host's.
struct PointEnds {
  std::string guest;
  std::string host;
};

/// Finds a point by VM.DEVICE or KIND:NAME, and makes its devices when it is first asked for.  Throws
/// std::runtime_error when the host has none.
PointEnds ResolvePoint(const std::string& point);

}  // namespace zem::sim::capture
