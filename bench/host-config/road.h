#pragma once

#include <string>
#include <vector>

#include "sim/control/json.h"

namespace zem::sim {
class NodeProcess;
}

namespace zem::bench {

/// A period in which the script or a library worked, in seconds of the machine's monotonic clock.
struct Span {
  double begin;
  double end;
};

/// How much of [begin, end] the `spans` cover, in seconds; overlaps count once.
double Covered(std::vector<Span> spans, double begin, double end);

/// One configuration, from the manager's request to its answer.
struct Road {
  double total = 0;      ///< seconds
  double proxy = 0;      ///< seconds in which the management script worked
  double libraries = 0;  ///< seconds inside the switch, endpoint and router libraries
  double own = 0;        ///< seconds in which neither worked
  int commands = 0;
  int calls = 0;
};

/// Sends a configuration and determines which part worked when.  Errors: std::runtime_error, also when the
/// answer is not "0".
Road Measure(sim::NodeProcess& node, const std::string& message);

}  // namespace zem::bench
