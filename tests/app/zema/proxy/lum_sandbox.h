#pragma once

#include <stdlib.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include "app/zema/proxy/lum_handler.h"
#include "framework/process/shutdown_pipe.h"
#include "sim/sandbox/sandbox.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox_test.h"

namespace zem::test {

inline constexpr const char* kHost = "/var/run/orlane/sim/host";

inline void Write(const std::string& name, const std::string& text) {
  std::filesystem::create_directories(kHost);
  std::ofstream(std::string(kHost) + "/" + name) << text;
}

inline std::string Frames() {
  std::ostringstream text;
  text << std::ifstream(std::string(kHost) + "/frames.log").rdbuf();
  return text.str();
}

/// The handler and the host's script in a sandbox where both have their real names.
class LumSandbox : public SandboxTest {
 protected:
  // The copy goes into the folder that the sandbox sees, wherever the source is.
  LumSandbox() {
    std::filesystem::copy(LUM_STAND_IN, directory_.Path("stand_in"));
    for (const auto& file : std::filesystem::directory_iterator(ZEM_SOURCE "/sim/host")) {
      if (!file.is_regular_file()) continue;
      std::filesystem::copy(file.path(), directory_.Path(file.path().filename().string()));
    }
  }

  // `body` gets the log and the ready states that the handler has reported.
  int Run(const std::function<int(LogCapture&, zema::LumSettings, std::string*)>& body) {
    return SandboxTest::Run([&body] {
      LogCapture log;
      // As in the daemon: a call may write to a script that is just ending.
      std::signal(SIGPIPE, SIG_IGN);
      std::filesystem::create_symlink(std::string(sim::kNodeDirectory) + "/ps", "/usr/local/bin/ps");
      ::setenv("PATH", "/usr/local/bin:/usr/bin:/bin", 1);
      if (!Tarvik::OpenShutdownPipe()) return 1;
      std::string told;
      zema::LumSettings settings;
      settings.script = std::string(sim::kNodeDirectory) + "/zemaLum.py";
      settings.kill_pause = std::chrono::milliseconds(20);
      settings.pid_pause = std::chrono::milliseconds(20);
      // On a busy machine a script takes longer to start.
      settings.options = [] { return zema::LumOptions{1000}; };
      settings.ready_pause = std::chrono::milliseconds(20);
      settings.host_version = "7.0.3";
      settings.set_ready = [&told](bool ready) { told += ready ? "up " : "down "; };
      return body(log, settings, &told);
    });
  }
};

}  // namespace zem::test
