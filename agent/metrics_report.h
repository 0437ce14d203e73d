#pragma once

#include <boost/intrusive_ptr.hpp>
#include <memory>
#include <string>
#include <vector>

namespace zem {
class AsioZemProvider;
class WorkGroup;
}  // namespace zem

namespace zem::Tarvik {

class StatusBoard;

/// All metrics of the daemon as text for monitoring.  The sources live as long as it is asked.
///
/// Threads: any; memory work only, but for the status board's short patience.
class MetricsReport {
 public:
  MetricsReport(AsioZemProvider& provider, std::shared_ptr<StatusBoard> status,
                std::vector<boost::intrusive_ptr<WorkGroup>> groups);

  std::string Text() const;

 private:
  AsioZemProvider& provider_;
  const std::shared_ptr<StatusBoard> status_;
  const std::vector<boost::intrusive_ptr<WorkGroup>> groups_;
};

}  // namespace zem::Tarvik
