#include "sim/host/named_processes.h"

#include <filesystem>
#include <fstream>

#include "sim/control/number.h"

namespace zem::sim {

std::vector<pid_t> ProcessesNamed(const std::string& name) {
  std::vector<pid_t> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const auto pid = NumberOf<pid_t>(entry.path().filename().string());
    if (!pid) continue;
    std::string comm;
    std::getline(std::ifstream(entry.path() / "comm"), comm);
    if (comm == name) found.push_back(*pid);
  }
  return found;
}

}  // namespace zem::sim
