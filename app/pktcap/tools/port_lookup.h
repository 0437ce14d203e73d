#pragma once

#include <string>

#include "app/pktcap/tools/tool_process.h"

namespace zem::Tarvik {

/// The host's tools at their paths; others in tests.
struct CaptureTools {
  std::string capture = "/bin/pktcap-uw";
  std::string filter = "/bin/tcpdump-uw";
  std::string python = "/usr/bin/python";
  std::string find_port = "/opt/orlane/zem-tarvik/libexec/find_portid";
  std::string process_proxy = "/opt/orlane/zem-tarvik/libexec/knlctlProxy";
  std::string upload = "/opt/orlane/zem-tarvik/libexec/sbundle-upload.py";
  std::string ps = "/bin/ps";
  /// Templates of the two temporary names.
  std::string pipe = "/tmp/tarvik-pktcap-dump.XXXXXX";
  std::string file = "/tmp/pktcapApp-tmp.XXXXXX";
};

/// Asks the host's script for the switch port of an object of one kind.  `switch_id` may be null.  Returns
/// whether there is one.  Blocks, up to half a minute.
///
/// Threads: any long-lived thread.
[[nodiscard]] bool FindSwitchPortId(const CaptureTools& tools, const std::string& kind,
                                    const std::string& value, std::string* switch_port,
                                    std::string* switch_id, const std::atomic<bool>* stop);

/// Returns the pid of the host's probe process; empty when it does not run.  Blocks, up to some seconds.
std::string FindVProbeProcess(const CaptureTools& tools, const std::atomic<bool>* stop);

}  // namespace zem::Tarvik
