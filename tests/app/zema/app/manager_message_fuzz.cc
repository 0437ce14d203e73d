// The manager is another process and may be of any version: each of its messages, whatever its content, must
// be carried out as written or be refused, and no value in it may change the meaning of a command to the
// host.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "app/zema/app/host_requests.h"
#include "app/zema/app/message_dispatch.h"
#include "app/zema/app/refused_request.h"
#include "app/zema/covedb/config_files.h"
#include "app/zema/covedb/host_config_codec.h"
#include "app/zema/endpoint/endpoint_context.h"
#include "app/zema/endpoint/vtep_application.h"
#include "app/zema/endpoint/vtep_request_tasks.h"
#include "app/zema/hostconfig/host_profile_task.h"
#include "app/zema/hostconfig/mmode_config_task.h"
#include "app/zema/hostconfig/restore_task.h"
#include "app/zema/hostlib/endpoint_library.h"
#include "app/zema/lswitch/logical_switch_batcher.h"
#include "app/zema/lswitch/logical_switch_full_sync_task.h"
#include "app/zema/manager/zem_manager.h"
#include "app/zema/migration/interface_migration.h"
#include "app/zema/migration/migration_message.h"
#include "app/zema/migration/migration_record.h"
#include "app/zema/ports/vif_request.h"
#include "app/zema/proxy/error_sink.h"
#include "app/zema/proxy/switch_record.h"
#include "app/zema/state/health_record.h"
#include "framework/node/host_identity.h"
#include "proto/covedb/switching_objects.pb.h"
#include "proto/switching/switching.pb.h"
#include "tests/app/zema/lswitch/checking_lum.h"
#include "tests/app/zema/lswitch/fake_host_parts.h"
#include "tests/app/zema/lswitch/fake_sender.h"
#include "tests/app/zema/manager/no_vifs.h"
#include "tests/app/zema/state/no_publisher.h"
#include "tests/support/silent_log.h"

namespace {

using namespace zem;
using namespace zem::zema;
namespace switching = orlane::zem::switching;

constexpr std::array kTypes = {
    "HostConfigMsg",
    "LogicalSwitchMsg",
    "LogicalSwitchBulkMsg",
    "VifMsg",
    "ChecksumMsg",
    "HostProfileMsg",
    "VTEPRecoveryRequestMsg",
    "VTEPAdminStateMgmtRequestMsg",
    "VtepIPSyncMsg",
    "TransportNodeHostSwitchesMigrationMsg",
    "MaintenanceModeConfigMsg",
    "NoSuchMessage",
};

// Runs each task at once instead of queuing it on a worker.
class HostInHand final : public ManagerRequests {
 public:
  void Receive(const char* type, std::string_view payload) {
    dispatch.ProcessReceiveMessages("session:1", std::string("com.orlane.zem.switching.") + type, payload,
                                    "c", "r");
    AnswerRefused({{&sender, "c", "r", ""}, type, std::string(payload), "too many"});
    sender.Take();
  }

 private:
  std::unique_ptr<Runnable> HostConfig(const RequestOrigin&, switching::HostConfigMsg message) override {
    ReadHostConfig(std::move(message));
    return nullptr;
  }
  std::unique_ptr<Runnable> LogicalSwitch(const RequestOrigin& origin,
                                          const switching::LogicalSwitchMsg& message) override {
    LogicalSwitchMsgTask::Batcher batcher(switches);
    if (const auto task =
            LogicalSwitchMsgTask::CreateTask(*switches, message, origin.sender, origin.reply_to, 0)) {
      batcher.AddTask(task.get());
    }
    batcher.Run();
    return nullptr;
  }
  std::unique_ptr<Runnable> LogicalSwitchFullSync(const RequestOrigin& origin, std::string bytes) override {
    LogicalSwitchFullSyncTask(switches, origin.sender, "c", "r", std::move(bytes)).Run();
    return nullptr;
  }
  std::unique_ptr<Runnable> Restore(const RequestOrigin& origin,
                                    const switching::ChecksumMsg& message) override {
    RestoreTask(files, lum, origin.sender, "c", "r", message).Run();
    return nullptr;
  }
  std::unique_ptr<Runnable> HostProfile(const RequestOrigin& origin,
                                        const switching::HostProfileMsg& message) override {
    HostProfileTask(lum, origin.sender, "c", "r", message).Run();
    return nullptr;
  }
  std::unique_ptr<Runnable> MaintenanceMode(const RequestOrigin& origin,
                                            const switching::MaintenanceModeConfigMsg& message) override {
    MmodeConfigTaskQub(mmode, origin.sender, "c", "r", message).Run();
    return nullptr;
  }
  std::unique_ptr<Runnable> VtepRecovery(const RequestOrigin&,
                                         const switching::VTEPRecoveryRequestMsg& message) override {
    VtepRecoveryTask(endpoints, "c", "r", message).Run();
    return nullptr;
  }
  std::unique_ptr<Runnable> VtepAdminState(const RequestOrigin&,
                                           const switching::VTEPAdminStateMgmtRequestMsg& message) override {
    VtepAdminStateTask(endpoints, "c", "r", message).Run();
    return nullptr;
  }
  void SyncVtepAddresses(const RequestOrigin& origin, const switching::VtepIPSyncMsg& message) override {
    VtepIPSync(endpoints, origin.reply_to, message);
  }
  void DetachVif(const switching::VifAttachmentMsg& vif) override { (void)DetachRequestOf(vif)->ToString(); }
  void RestoreVif(const switching::VifAttachmentMsg& vif) override {
    (void)RestoreRequestOf(vif)->ToString();
  }
  void VifResult(const std::string& rpc_id, std::unique_ptr<PortAttached> result) override {
    manager.SetResultToPendingRPC(rpc_id, std::move(result));
  }
  void AcknowledgeHostConfig(const std::string&, const switching::HostConfigAckMsg&) override {}
  void RefuseHostProfile(const RequestOrigin&, const std::string&) override {}
  void Refuse(const RequestOrigin& origin, std::string_view type, std::string payload,
              const std::string& reason) override {
    AnswerRefused({origin, std::string(type), std::move(payload), reason});
  }

  // The steps of a configuration that read the message; the steps that read the host have tests of their own.
  void ReadHostConfig(switching::HostConfigMsg config) {
    orlane::zem::covedb::RealizedHostConfigMsg stored;
    (void)EncodeHostConfigMsg(config, &stored);
    (void)ComputeChecksum(config);
    ErrorSink errors;
    KnlMigrationMap map;
    if (!ConvertDvsUuidsAndPopulateKnlMigrationMap(&config, &map, errors)) return;
    MigrationRecord record;
    InterfaceMigrationSettings settings;
    settings.create_port = [](const auto&, const std::string&) { return Outcome::Done(); };
    InterfaceMigration migration(lum, errors, record, std::move(settings));
    bool migrate = false;
    (void)migration.PrepareAndMigrate(&config, &map, &migrate, false);
    MigratedPnics migrated = MigratedPnicsOf(map);
    std::string error;
    const auto records = BuildSwitchRecords(config, &migrated, &error);
    if (!records) return;
    for (const std::string& each : *records) {
      if (each.find(';') != std::string::npos) std::abort();
      if (std::count(each.begin(), each.end(), '|') !=
          std::count(records->front().begin(), records->front().end(), '|')) {
        std::abort();
      }
    }
    (void)TzToDvsOf(config);
    VtepOutcome outcome;
    VtepApplication vteps(
        lum, errors, [](const std::string&, const std::string&) { return std::make_optional<uint32_t>(1); },
        outcome);
    for (auto& host_switch : *config.mutable_host_switches()) {
      (void)vteps.ApplyVTEP(&host_switch, {}, false);
    }
  }

  CheckingLum lum;
  FakeSender sender;
  WorkerTable workers;
  // These files are never written, so that each input runs as fast as possible.
  ConfigFiles files{{"/nonexistent/host_config.bin", "/nonexistent/mmode.bin"}};
  NoPublisher publisher;
  HealthRecord health{publisher, false};
  NoVifs vifs;
  EndpointLibrary library;
  HostIdentity identity;
  FakeHostParts parts{"host-1"};
  ZemManager manager{vifs, identity, parts.options};
  std::shared_ptr<LogicalSwitchContext> switches = parts.Context(lum, nullptr, workers);
  std::shared_ptr<MmodeContext> mmode = std::make_shared<MmodeContext>(
      MmodeContext{lum, files, health, manager, [](const std::string&, std::string*) { return 0; }});
  std::shared_ptr<EndpointContext> endpoints = std::make_shared<EndpointContext>(
      lum, library, identity, workers, parts.options, &sender, [](Duration) { return false; });
  MessageDispatch dispatch{sender, workers, std::shared_ptr<ManagerRequests>(this, [](auto*) {})};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zem::test::SilenceLog();
  static HostInHand host;
  if (size == 0) return 0;
  host.Receive(kTypes[data[0] % kTypes.size()], {reinterpret_cast<const char*>(data) + 1, size - 1});
  return 0;
}
