#pragma once

#include <time.h>

#include <cstdint>
#include <functional>
#include <string>

namespace zem::bench {

/// Seconds of processor time of this process.
inline double ProcessorSeconds() {
  timespec now{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// The shortest of some rounds of `work`, in seconds of processor time.
double Shortest(int rounds, const std::function<void()>& work);

/// Prints a case's line; `ratio` is the peer's figure by ours.
void Line(const char* name, const char* metric, double ours, double peer);

/// The inventory daemon's reply about so many VMs with two vNICs each, with attachments and addresses.
std::string ReplyAbout(uint32_t vms);

/// Reading a reply, making the manager's message of it, and one change among many VMs.
void MeasureReplies(uint32_t vms);
/// The store's records of so many attachments.
void MeasureRecords(uint32_t count);
/// A whole agent's full sync of so many VMs.
void MeasureFullSync(uint32_t vms);

}  // namespace zem::bench
