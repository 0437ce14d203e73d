#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sim/capture/gre_receiver.h"
#include "sim/capture/tap_server.h"
#include "sim/capture/traffic.h"

namespace zem::sim {
class CommandTable;
}

namespace zem::sim::capture {

/// What the node has of packet capture beside the tools.
struct CaptureHost {
  TapServer taps;
  Traffic traffic;
  std::mutex mutex;  // guards receiver
  std::unique_ptr<GreReceiver> receiver;
};

void RegisterCaptureCommands(CommandTable& table, CaptureHost& host);

/// The capture tools that run, for the node's picture.
std::vector<std::string> DrawCapture();

}  // namespace zem::sim::capture
