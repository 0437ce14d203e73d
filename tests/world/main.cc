// Runs lives of a node by seed, each in a process and a sandbox of its own.
//
// zem-world [--seeds FIRST[-LAST]] [--hours N] [--jobs N] [--new N] [--log PREFIX] [--without PART]... [-v]

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "platform/core/random.h"
#include "sim/data/data_folder.h"
#include "sim/host/host_state.h"
#include "sim/sandbox/sandbox.h"
#include "tests/world/world_life.h"

namespace {

constexpr const char* kLibraryPath = "LD_LIBRARY_PATH";

int Live(const zem::world::WorldLife::Options& options) {
  try {
    std::vector<std::string> lines;
    {
      zem::world::WorldLife life(options);
      lines = life.Run();
      for (const std::string& line : lines)
        std::printf("seed %llu: %s\n", static_cast<unsigned long long>(options.seed), line.c_str());
      std::fflush(stdout);
      if (options.log != nullptr && !lines.empty()) {
        std::ifstream frames(zem::sim::HostState::DefaultRoot() + "/host/frames.log");
        for (std::string line; std::getline(frames, line);)
          std::fprintf(options.log, "frame %s\n", line.c_str());
        std::fflush(options.log);
      }
      // A node that already failed may hang when it is destroyed.
      if (!lines.empty()) ::_exit(1);
    }
    return 0;
  } catch (const std::exception& error) {
    std::printf("seed %llu: %s\n", static_cast<unsigned long long>(options.seed), error.what());
    std::fflush(stdout);
    return 1;
  }
}

// The first process of a sandbox inherits the processes that the agent leaves behind and has to reap them.
int LiveAndReap(const zem::world::WorldLife::Options& options) {
  const pid_t life = ::fork();
  if (life == 0) ::_exit(Live(options));
  for (;;) {
    int status = 0;
    const pid_t ended = ::waitpid(-1, &status, 0);
    if (ended == life) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (ended < 0 && errno != EINTR) return 1;
  }
}

int LiveInSandbox(zem::world::WorldLife::Options options, const std::string& log) {
  // Opened here, because the sandbox hides the folder.
  if (!log.empty()) options.log = std::fopen((log + "." + std::to_string(options.seed)).c_str(), "w");
  char directory[] = "/tmp/zem-world.XXXXXX";
  if (::mkdtemp(directory) == nullptr) return 1;
  zem::sim::SandboxOptions sandbox{directory, "/bin/true", zem::sim::DataFolder::Get().host,
                                   zem::sim::DataFolder::Get().libraries};
  sandbox.agent_scripts = zem::sim::DataFolder::Get().agent_scripts;
  const int code = zem::sim::RunInSandbox(sandbox, [&options] { return LiveAndReap(options); });
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
  return code;
}

}  // namespace

int main(int argc, char** argv) {
  // The loader reads its search path only at the start of the process.
  const std::string libraries = zem::sim::DataFolder::Get().libraries;
  const char* const path = std::getenv(kLibraryPath);
  if (path == nullptr || libraries != path) {
    ::setenv(kLibraryPath, libraries.c_str(), 1);
    ::execv("/proc/self/exe", argv);
    std::perror("zem-world");
    return 2;
  }
  uint64_t first = 1;
  uint64_t last = 0;
  int jobs = 1;
  uint64_t fresh = 0;
  std::string log;
  zem::world::WorldLife::Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const char* const value = i + 1 < argc ? argv[i + 1] : "";
    if (word == "-v") {
      options.verbose = true;
      continue;
    }
    ++i;
    if (word == "--seeds") {
      first = std::strtoull(value, nullptr, 10);
      const char* const dash = std::strchr(value, '-');
      last = dash == nullptr ? first : std::strtoull(dash + 1, nullptr, 10);
    } else if (word == "--hours") {
      options.hours = std::atof(value);
    } else if (word == "--jobs") {
      jobs = std::atoi(value);
    } else if (word == "--new") {
      fresh = std::strtoull(value, nullptr, 10);
    } else if (word == "--without") {
      options.without.emplace_back(value);
    } else if (word == "--log") {
      log = value;
    } else {
      std::fprintf(stderr,
                   "usage: zem-world [--seeds FIRST[-LAST]] [--new N] [--hours N] [--jobs N] [--log PREFIX] "
                   "[--without PART]... [-v]\n");
      return 2;
    }
  }
  std::vector<uint64_t> seeds;
  for (uint64_t seed = first; seed <= last; ++seed) seeds.push_back(seed);
  for (uint64_t i = 0; i < fresh; ++i) seeds.push_back(1'000'000 + zem::RandomNumber() % 1'000'000'000);

  std::map<pid_t, uint64_t> running;
  size_t next = 0;
  size_t failed = 0;
  while (next < seeds.size() || !running.empty()) {
    if (next < seeds.size() && running.size() < static_cast<size_t>(jobs)) {
      options.seed = seeds[next++];
      const pid_t pid = ::fork();
      if (pid == 0) ::_exit(LiveInSandbox(options, log));
      running[pid] = options.seed;
      continue;
    }
    int status = 0;
    const pid_t ended = ::waitpid(-1, &status, 0);
    const auto found = running.find(ended);
    if (found == running.end()) continue;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      std::printf("seed %llu failed (status %d)\n", static_cast<unsigned long long>(found->second), status);
      std::fflush(stdout);
      ++failed;
    }
    running.erase(found);
  }
  std::printf("%zu lives of %.1f simulated hours, %zu failed\n", seeds.size(), options.hours, failed);
  return failed == 0 ? 0 : 1;
}
