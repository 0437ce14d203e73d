#include "app/zema/app/realization.h"

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "app/zema/app/host_config_callbacks.h"
#include "app/zema/covedb/config_files.h"
#include "app/zema/manager/manager_sender.h"
#include "app/zema/state/health_record.h"
#include "app/zema/state/host_config_state.h"
#include "app/zema/workers/worker_table.h"
#include "framework/node/platform_info.h"
#include "framework/process/shutdown_pipe.h"
#include "mpaclient/vertical/vertical_client.h"
#include "mpaclient/verticals.h"
#include "platform/provider/provider.h"
#include "sim/sandbox/host_setup.h"
#include "sim/switch/library_folder.h"
#include "tests/app/zema/lswitch/fake_sender.h"
#include "tests/support/sandbox_test.h"

namespace zem::zema {
namespace {

using test::LogCapture;

constexpr const char* kOptionsFile = "/etc/orlane/zem-tarvik/zema.json";

/// Starts of the realization, one after the other, on a host from which a test removes parts.
class Starts {
 public:
  Starts() {
    provider_.RunAsync(1);
    settings_.sender = &sender_;
    settings_.vif_sender = &vif_sender_;
    settings_.options = &options_;
    settings_.files = &files_;
    settings_.state = &state_;
    settings_.workers = &workers_;
    settings_.timers = &provider_.timers();
    settings_.callbacks = &callbacks_;
  }
  ~Starts() { provider_.StopAndWait(true); }

  Realization::Result TryOnce() {
    Realization realization(settings_);
    const Realization::Result result = realization.SetUp();
    healthy_ = realization.health() != nullptr && realization.health()->lum_ready();
    realization.Stop(result);
    workers_.DeleteTaskThreadObjects();
    return result;
  }
  /// Whether the management proxy answered during the last start.
  bool healthy() const { return healthy_; }
  WorkerTable& workers() { return workers_; }

 private:
  AsioZemProvider provider_;
  FakeSender sender_;
  OptionsStore options_;
  ConfigFiles files_;
  HostConfigState state_;
  WorkerTable workers_;
  HostConfigCallbacks callbacks_;
  VerticalClient vertical_{provider_, GetVertical(VerticalId::kSwitching), {}};
  ManagerSender vif_sender_{vertical_, options_};
  Realization::Settings settings_;
  bool healthy_ = false;
};

class RealizationTest : public test::SandboxTest {
 protected:
  int Run(const std::function<int(LogCapture&)>& body) {
    const sim::SandboxOptions sandbox{directory_.Path(), "/bin/true", ZEM_SIM_HOST,
                                      sim::LibraryFolder::Built()};
    return sim::RunInSandbox(sandbox, [&body] {
      LogCapture log;
      std::signal(SIGPIPE, SIG_IGN);
      ::setenv("PATH", "/usr/local/bin:/usr/bin:/bin", 1);
      std::ofstream("/etc/zem_issue") << "node-type: zem-qub\n";
      sim::SetUpHost({});
      if (Tarvik::LoadPlatformInfo() != 0 || !Tarvik::OpenShutdownPipe()) return 1;
      return body(log);
    });
  }
};

// Each failed start reports why, leaves nothing behind that would keep the next one from succeeding, and does
// not stop parts that it has not started.
TEST_F(RealizationTest, AMissingPartFailsTheStartAndTheNextStartSucceeds) {
  EXPECT_EQ(Run([](LogCapture& log) {
              std::filesystem::create_directories(std::filesystem::path(kOptionsFile).parent_path());
              std::ofstream(kOptionsFile) << "{}";
              Starts starts;
              const std::string tool = "/usr/local/bin/orlane";
              std::filesystem::rename(tool, tool + ".away");
              SANDBOX_EXPECT(starts.TryOnce() == Realization::kHostUnknown);
              std::filesystem::rename(tool + ".away", tool);
              SANDBOX_EXPECT(log.Contains("Failed to run 'orlane -l'"));
              SANDBOX_EXPECT(log.Contains("Skip stopping HostHandler and Task threads"));

              const std::string libraries = sim::LibraryFolder::Built();
              SANDBOX_EXPECT(::mount("none", libraries.c_str(), "tmpfs", 0, nullptr) == 0);
              SANDBOX_EXPECT(starts.TryOnce() == Realization::kNoSwitchLibrary);
              SANDBOX_EXPECT(::umount(libraries.c_str()) == 0);
              SANDBOX_EXPECT(log.Contains("Error in opening switch library"));

              std::ofstream(kOptionsFile) << "{ no options";
              SANDBOX_EXPECT(starts.TryOnce() == Realization::kBadOptions);

              const std::string script = std::string(sim::kHostScripts) + "/zemaLum.py";
              std::ofstream(kOptionsFile) << R"({"lum": {"maxRetryZemaLumReady": 1}})";
              SANDBOX_EXPECT(::mount("/dev/null", script.c_str(), nullptr, MS_BIND, nullptr) == 0);
              SANDBOX_EXPECT(starts.TryOnce() == Realization::kNoProxy);
              SANDBOX_EXPECT(!starts.healthy() && !starts.workers().Has(Worker::kHostSync));
              SANDBOX_EXPECT(::umount(script.c_str()) == 0);
              SANDBOX_EXPECT(log.Contains("failed to start lumHandler"));

              log.Clear();
              SANDBOX_EXPECT(starts.TryOnce() == Realization::kDone);
              SANDBOX_EXPECT(starts.healthy());
              SANDBOX_EXPECT(log.Contains("Started all threads successfully"));
              return 0;
            }),
            0);
}

}  // namespace
}  // namespace zem::zema
