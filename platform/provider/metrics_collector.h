#pragma once

#include <boost/property_tree/ptree_fwd.hpp>
#include <memory>
#include <string>

namespace zem {
class AsioZemProvider;
class Timer;
}  // namespace zem

namespace zem::metrics {

/// Writes all metrics of a provider as one JSON object per interval.
///
/// Options: `file` (default "/var/run/orlane/zem-tarvik/metrics.json"), `intervalSec` (default 60, at least
/// 1). The file is replaced as a whole: a reader sees the old or the new one.
class MetricsCollector {
 public:
  MetricsCollector(AsioZemProvider& provider, const boost::property_tree::ptree& options);
  ~MetricsCollector();

  /// Collects now.  False, and logged, when the file cannot be written.
  bool Collect();

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace zem::metrics
