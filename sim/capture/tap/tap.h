#pragma once

#include <cstddef>

namespace zem::sim::capture {

/// Where the switch hands out taps: a socket of whole messages.  The request is "KIND\nNAME"; the answer is
/// "ok" with a packet socket that is bound to the point, or a text without one.
constexpr const char* kTapSocket = "/run/orlane/sim/capture/taps";
constexpr size_t kMostTapText = 1024;
constexpr const char* kTapGranted = "ok";

}  // namespace zem::sim::capture
