#pragma once

#include <algorithm>
#include <chrono>

#include "platform/core/clock.h"

namespace zem::sim {

/// The seconds in which something has to come true that a scenario gives `seconds` for.
///
/// On a fast clock these are fractions of the machine's, while the work takes as long as ever, and longer
/// beside other work: there it has some seconds of the machine in any case.  A scenario whose durations are
/// its subject runs in real time, where its bounds count as they are.
inline double Patience(double seconds) {
  constexpr std::chrono::seconds kOfTheMachine{5};
  const Clock& clock = Clock::Process();
  const TimePoint now = clock.Now();
  const std::chrono::duration<double> second =
      clock.OnMachine(now + std::chrono::seconds(1)) - clock.OnMachine(now);
  if (seconds <= 0 || second > std::chrono::milliseconds(999)) return seconds;
  return std::max(seconds, kOfTheMachine / second);
}

}  // namespace zem::sim
