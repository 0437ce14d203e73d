#include "sim/capture/capture_point.h"

#include <sstream>
#include <stdexcept>

#include "framework/process/child_process.h"

namespace zem::sim::capture {
namespace {

constexpr const char* kScript = "/usr/lib64/orlane/zem-tarvik/pylum/zema/capture_points.py";

}  // namespace

PointEnds ResolvePoint(const std::string& point) {
  Tarvik::ChildProcess::Options options;
  options.argv = {"/usr/bin/python3", kScript, "resolve", point};
  const Tarvik::ChildResult result = Tarvik::ChildProcess(std::move(options)).Run();
  PointEnds ends;
  std::istringstream words(result.output);
  words >> ends.guest >> ends.host;
  if (result.end != Tarvik::ChildEnd::kExited || result.value != 0 || ends.host.empty()) {
    throw std::runtime_error(result.errors.empty() ? "no capture point " + point : result.errors);
  }
  return ends;
}

}  // namespace zem::sim::capture
