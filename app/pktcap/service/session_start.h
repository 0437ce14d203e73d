#pragma once

#include <atomic>
#include <boost/intrusive_ptr.hpp>
#include <string>

#include "app/pktcap/exporter/capture_parameters.h"
#include "app/pktcap/exporter/pktcap_exporter.h"
#include "app/pktcap/service/session_status.h"

namespace orlane::zem::packetcapture {
class PktCapRequestMsg;
}

namespace zem::Tarvik {

/// A request that was checked, or why it was refused.
struct PreparedSession {
  SessionError error = SessionError::kNone;
  boost::intrusive_ptr<PktcapExporter> exporter;
  /// The file that the exporter will make; empty for a stream.
  std::string file;
};

/// Checks a request for a capture and sets an exporter up for it.  Leaves nothing on the host.  Blocks while
/// the host looks up the capture point; `*stop` ends that.
///
/// Threads: any long-lived thread.
PreparedSession PrepareSession(const std::string& session_id,
                               const orlane::zem::packetcapture::PktCapRequestMsg& request,
                               const CaptureParameters::Host& host, const std::atomic<bool>* stop);

}  // namespace zem::Tarvik
