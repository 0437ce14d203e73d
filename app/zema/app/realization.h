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
class VifIndex;
class WorkerTable;
class ZemManager;
struct HostConfigContext;
struct EndpointContext;
struct HostConfigState;
struct LogicalSwitchContext;
struct MmodeContext;
struct VifRequest;

/// Everything that one start of the realization sets up; the next attempt makes a new one.
///
/// Threads: SetUp and Stop are called by the start's thread, or Stop by the main thread once SetUp has
/// returned; the other operations by any thread once SetUp has succeeded.
class Realization {
 public:
  /// Objects that outlive a start.  All must be set, except those that may be null.
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
    /// The callbacks get each configuration that is applied, and the stored one at the start.
    HostConfigCallbacks* callbacks = nullptr;
    /// The controller list whose file holds the transport node id; null where no controller list is kept.
    Tarvik::ControllerListApp* controllers = nullptr;
    /// The file in which an upgrade saves the configuration that it found.
    std::string backup_file = "/tmp/zem/host_config.bin";
    std::string backup_saved = "/tmp/zem/host_config_saved.bin";
  };

  /// Results of a set-up; Stop undoes the set-up as far as the result says that it went.
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

  /// Takes minutes when the host is not ready.
  [[nodiscard]] Result SetUp();

  /// `reason` is the result of the set-up, or 0 when the process ends.
  void Stop(int reason);

  HealthRecord* health();
  /// Null until the host configuration can be served.
  const VifIndex* vif_index();
  /// Null until the host configuration can be served.
  std::shared_ptr<HostConfigContext> host_config();
  std::shared_ptr<LogicalSwitchContext> logical_switches();
  std::shared_ptr<EndpointContext> endpoints();
  std::shared_ptr<MmodeContext> mmode();
  /// Called by the threads that serve the host's own requests; does not wait.
  void AddVifRequest(std::shared_ptr<VifRequest> request);
  void SetVifResult(const std::string& rpc_id, std::unique_ptr<PortAttached> result);

  /// Returns an empty text on success, otherwise the error.
  std::string HostSwitchAndLSCleanup(bool force);

  /// A migration described by files: of VMs' ports, of interfaces and physical NICs, or of both.
  std::unique_ptr<Runnable> MakeVnicMigrationTask(bool vm_ports, bool knl_pnic);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zem::zema
