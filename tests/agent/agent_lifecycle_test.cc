// The whole start and stop order of the daemon, in a sandbox in which the real paths and ports are free.

#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "agent/agent.h"
#include "framework/node/options.h"
#include "platform/core/stop_signal.h"
#include "platform/core/thread.h"
#include "sim/manager/manager.h"
#include "sim/store/store_daemon.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox_test.h"

namespace zem {
namespace {

using namespace std::chrono_literals;

void WriteFile(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

class AgentLifecycleTest : public test::SandboxTest {};

bool WaitFor(const test::LogCapture& log, const std::string& text) {
  for (int i = 0; i < 1000; ++i) {
    if (log.Contains(text)) return true;
    SleepFor(10ms);
  }
  return false;
}

// The peers run in the same process and log the end of the agent's connections.
size_t OwnLines(const test::LogCapture& log) { return log.Lines().size() - log.Count("subcomp=\"zem-"); }

bool InOrder(const test::LogCapture& log, const std::vector<std::string>& parts) {
  const std::vector<std::string> texts = log.Texts();
  auto from = texts.begin();
  for (const std::string& part : parts) {
    from = std::find_if(from, texts.end(), [&part](const std::string& text) { return text.find(part) == 0; });
    if (from == texts.end()) {
      std::cerr << "not in its place: " << part << "\n";
      return false;
    }
  }
  return true;
}

// Every start and stop goes through the whole order and leaves nothing behind: no thread that still logs, no
// descriptor, no listener that would block the ports of the next start.
TEST_F(AgentLifecycleTest, StartsServesAndStopsInOrder) {
  EXPECT_EQ(
      Run([] {
        test::LogCapture log;
        WriteFile("/etc/zem_issue", "node-type: zem-qub\n");
        WriteFile(Tarvik::kOptionsPath,
                  "<config><tarvik><log><level>6</level></log><app><zemaApp>false</zemaApp></"
                  "app><metrics><collector><file>/tmp/m.json</file>"
                  "<intervalSec>1</intervalSec></collector></metrics></tarvik></config>");
        AsioZemProvider store_provider;
        sim::ObjectRegistry registry;
        sim::StoreDaemon store(store_provider, "tcp://127.0.0.1:2480", registry);
        store_provider.RunAsync(1);
        sim::Manager::Options options;
        options.transport_node_id = "5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a01";
        sim::Manager manager(options);
        manager.StartProxy();
        manager.AddAph("0a000000-0000-4000-8000-000000000001", true);
        size_t descriptors = 0;
        for (int life = 0; life < 3; ++life) {
          log.Clear();
          Tarvik::Agent::Settings settings;
          settings.handle_signals = false;
          Tarvik::Agent agent(settings);
          SANDBOX_EXPECT(agent.Start() == 0);
          NativeThread serving([&agent] { agent.Serve(); });
          SANDBOX_EXPECT(WaitFor(log, "CoveDbClient is connected"));
          SANDBOX_EXPECT(WaitFor(log, "ApplProxyInfoObserver: Processed applProxyInfo Response."));
          agent.Interrupt();
          serving.Join();
          agent.Stop();
          SANDBOX_EXPECT(InOrder(
              log,
              {"Running on QUB node, version 0.0.0.", "Try loading config file: ", "SetLogLevel set tarvik",
               "Build Number: ", "SetHealthCheckMode: true", "Enable core dump",
               "Starting MPA client event loop thread...", "TnProxyClientCommon Init",
               ":Connecting to Covedb on Host end point tcp://127.0.0.1:2480 ", "CliServer Start...",
               "TnProxyClientCommon Start", "Stopping MPA client event loop thread...",
               "TnProxyClientCommon Stop, End", "ZEM Tarvik stop..."}));
          const size_t lines = OwnLines(log);
          SleepFor(200ms);
          SANDBOX_EXPECT(OwnLines(log) == lines);
          // The first life leaves what the libraries keep for the process.
          if (life == 0) descriptors = test::OpenDescriptors();
          SANDBOX_EXPECT(test::OpenDescriptors() <= descriptors);
        }
        return 0;
      }),
      0);
}

// An early failure is logged, the result is -1, and nothing is started.
TEST_F(AgentLifecycleTest, EarlyFailures) {
  EXPECT_EQ(Run([] {
              test::LogCapture log;
              Tarvik::Agent::Settings settings;
              SANDBOX_EXPECT(Tarvik::Agent(settings).Start() == -1);
              SANDBOX_EXPECT(log.Contains("Running on unknown node."));
              WriteFile("/etc/zem_issue", "node-type: zem-qub\n");
              for (const char* text : {"<config/>", "<config><tarvik>", ""}) {
                log.Clear();
                WriteFile(Tarvik::kOptionsPath, text);
                SANDBOX_EXPECT(Tarvik::Agent(settings).Start() == -1);
                SANDBOX_EXPECT(log.Contains("errorCode=\"OPS00001\""));
              }
              return 0;
            }),
            0);
}

}  // namespace
}  // namespace zem
