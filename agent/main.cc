#include <cstdio>
#include <string>
#include <string_view>

#include "agent/agent.h"
#include "framework/node/options.h"
#include "framework/options/option_check.h"

namespace {

// "--check [FILE]" tells what is wrong with an options file, and ends; the exit code is 1 when anything is.
int Check(const char* path) {
  const zem::Tarvik::OptionCheck check = zem::Tarvik::CheckOptions(path);
  const std::string lines = zem::Tarvik::FaultLines(path, check);
  if (lines.empty()) {
    std::printf("%s: good\n", path);
  } else {
    std::fputs(lines.c_str(), stderr);
  }
  return lines.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    if (std::string_view(argv[1]) == "--check" && argc <= 3)
      return Check(argc == 3 ? argv[2] : zem::Tarvik::kOptionsPath);
    std::fputs("Usage: zem-tarvik [--check [FILE]]\n", stderr);
    return 2;
  }
  zem::Tarvik::Agent agent;
  if (agent.Start() != 0) return -1;
  agent.Serve();
  agent.Stop();
  return 0;
}
