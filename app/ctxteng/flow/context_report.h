#pragma once

#include <cstddef>
#include <functional>
#include <memory>

#include "app/ctxteng/flow/vm_info.h"
#include "app/ctxteng/kafka/site_id.h"

namespace orlane::zem::pace {
class PaceContextInfoMsg;
}

namespace Ctxt::PaceClient {

/// A report is cut into messages below this size: brokers refuse one above 1,000,000 bytes.
constexpr size_t kMostReportBytes = 900000;

/// Makes the messages of reports.  It keeps the last message, because a report like the one before then finds
/// the memory for its texts in it.
///
/// Threads: one.
class ReportBuilder {
 public:
  using Send = std::function<void(const orlane::zem::pace::PaceContextInfoMsg&)>;

  ReportBuilder();
  ~ReportBuilder();
  ReportBuilder(const ReportBuilder&) = delete;
  ReportBuilder& operator=(const ReportBuilder&) = delete;

  /// Hands each message of a report to `send`, which may not keep it.  A message holds whole guests as far as
  /// they fit; one that is too large by itself is told in several messages.  A guest whose id is no uuid is
  /// left out.  Without any guest there is one message, which names the site alone.  Throws
  /// CtxtMemoryAllocationError.
  void Build(const VmMap& guests, SiteId::Halves site, const Send& send);

 private:
  std::unique_ptr<orlane::zem::pace::PaceContextInfoMsg> message_;
};

}  // namespace Ctxt::PaceClient
