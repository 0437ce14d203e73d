#pragma once

#include <memory>
#include <string>

#include "app/zema/manager/mpa_message_sender.h"
#include "app/zema/manager/port_attached.h"
#include "app/zema/state/realization_options.h"

namespace zem {
class Runnable;
class TimerFactory;
namespace Tarvik {
class ControllerListApp;
}
}  // namespace zem

namespace zem::zema {

class ConfigFiles;
class CoveDbHandler;
class HealthRecord;
class HostConfigCallbacks;
class ManagerSender;
class WorkerTable;
class ZemManager;
struct HostConfigContext;
struct EndpointContext;
struct HostConfigState;
struct LogicalSwitchContext;
struct MmodeContext;
struct VifRequest;

/// Everything that one start of the realization sets up, and that the next try makes anew.
///
/// Threads: SetUp and Stop by the start's thread, or Stop by the main thread once SetUp has returned; the
/// rest from any once SetUp has succeeded.
class Realization {
 public:
  /// What lives longer than a start.  All set, apart from what may be null.
  struct Settings {
    MpaMessageSender* sender = nullptr;
    ManagerSender* vif_sender = nullptr;
    OptionsStore* options = nullptr;
    ConfigFiles* files = nullptr;
    HostConfigState* state = nullptr;
    WorkerTable* workers = nullptr;
    TimerFactory* timers = nullptr;
    /// Null on a host without store.
    std::shared_ptr<CoveDbHandler> store;
    /// See each configuration that is applied, and the stored one at the start.
    HostConfigCallbacks* callbacks = nullptr;
    /// Whose file carries the transport node id; null where no controller list is kept.
    Tarvik::ControllerListApp* controllers = nullptr;
    /// Where an upgrade leaves the configuration that it found.
    std::string backup_file = "/tmp/zem/host_config.bin";
    std::string backup_saved = "/tmp/zem/host_config_saved.bin";
  };

  /// What the number of a failed set-up means to its undoing.
  enum Result : int {
    kClearMode = -1,
    kDone = 0,
    kHostUnknown = 1,
    kBadOptions = 2,
    kNoProxy = 3,
    kNoSwitchHandler = 4,
    kNoWorkers = 5,
    kNoSwitchLibrary = 6,
  };

  explicit Realization(Settings settings);
  ~Realization();
  Realization(const Realization&) = delete;
  Realization& operator=(const Realization&) = delete;

  /// Takes minutes where the host is not ready.
  [[nodiscard]] Result SetUp();

  /// `reason`: the result of the set-up, or 0 for the end of the process.
  void Stop(int reason);

  HealthRecord* health();
  /// Null before the host configuration can be served.
  std::shared_ptr<HostConfigContext> host_config();
  std::shared_ptr<LogicalSwitchContext> logical_switches();
  std::shared_ptr<EndpointContext> endpoints();
  std::shared_ptr<MmodeContext> mmode();
  /// For the threads that serve the host's own requests; does not wait.
  void AddVifRequest(std::shared_ptr<VifRequest> request);
  void SetVifResult(const std::string& rpc_id, std::unique_ptr<PortAttached> result);

  /// Empty, or what went wrong.
  std::string HostSwitchAndLSCleanup(bool force);

  /// A migration that files describe: of VMs' ports, of interfaces and physical NICs, or both.
  std::unique_ptr<Runnable> MakeVnicMigrationTask(bool vm_ports, bool knl_pnic);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zem::zema
