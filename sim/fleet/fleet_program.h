#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "sim/fleet/fleet_story.h"

namespace zem::fleet {

/// What is wanted of a fleet.
struct FleetOrder {
  int hosts = 1000;
  std::vector<std::string> stories;  ///< in their order, "start" first
  std::string curve;                 ///< a file for the seconds of all stories, as CSV; empty: none
  bool over_time = false;            ///< prints each second in which the manager has anything to do
};

/// Reads "[HOSTS] [STORY ...] [--curve FILE]"; without a story all are wanted.  Throws std::invalid_argument
/// with a text that names the word.
FleetOrder ReadFleetOrder(const std::vector<std::string>& words);

/// A story's figures.
struct StorySum {
  std::string story;
  uint64_t handshakes = 0;
  uint64_t messages = 0;        ///< with the handshakes
  uint64_t handshake_peak = 0;  ///< in one second
  uint64_t message_peak = 0;
  size_t busy = 0;      ///< seconds in which the manager has anything to do
  size_t quiet_at = 0;  ///< the last of them
  size_t ready_at = 0;  ///< the second from which on all hosts are served
};

StorySum Summed(const std::string& story, const std::vector<Second>& seconds, int hosts);

/// Makes a fabric, tells it the stories and prints what they put on the manager, the time until all hosts are
/// served and the memory of an agent.  Turns the process's log off and takes its clock.  Throws
/// std::runtime_error when a host is never served, or when the curve cannot be written.
std::vector<StorySum> RunFleet(const FleetOrder& order, std::ostream& out);

}  // namespace zem::fleet
