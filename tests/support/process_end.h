#pragma once

#include <poll.h>
#include <sys/types.h>

#include <fstream>
#include <string>

namespace zem::test {

/// Waits, in real time, until the process has ended; its new parent may not have reaped it yet.
inline bool HasEnded(pid_t pid) {
  for (int i = 0; i < 1000; ++i) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line) || line.find(") Z") != std::string::npos) return true;
    ::poll(nullptr, 0, 10);
  }
  return false;
}

}  // namespace zem::test
