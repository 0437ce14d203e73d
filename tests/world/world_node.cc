#include "tests/world/world_node.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "agent/status_sources.h"
#include "app/alarmsprovider/service/alarms_provider.h"
#include "app/zema/app/zema_app.h"
#include "covedbclient/covedb_client.h"
#include "framework/log/logger.h"
#include "framework/node/platform_info.h"
#include "framework/process/shutdown_pipe.h"
#include "mpaclient/proxy/tn_proxy_client_common.h"
#include "platform/provider/work_group.h"
#include "sim/sandbox/host_setup.h"
#include "sim/sandbox/small_disk.h"

namespace zem::world {
namespace {

// Batches close soon, so that a life contains many of them.
// A lost acknowledgement may not outlast a quiet moment.
constexpr const char* kDiscoveryOptions =
    "<config><zemda><CommunicationHandler><ackTimeout>30</ackTimeout></CommunicationHandler></zemda></"
    "config>";
constexpr const char* kRealizationOptions =
    "{\"mp\": {\"lsMsgBatchInterval\": 4, \"lsMsgIncomingWaitInBatch\": 1}, \"resync\": {\"intervalInSec\": "
    "600}}\n";

std::FILE* log_file = nullptr;

void EmitToFile(int, const char* line) {
  if (log_file == nullptr) return;
  const Duration now = Clock::Process().Now().time_since_epoch();
  std::fprintf(log_file, "%.6f %s\n", std::chrono::duration<double>(now).count(), line);
  std::fflush(log_file);
}

void Write(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::trunc) << text;
}

}  // namespace

WorldNode::WorldNode(std::FILE* log, bool small_logon_cache) {
  log_file = log;
  Logger::SetEmitter(&EmitToFile);
  InstallLibraryLogBridge();
  Logger::logLevel.store(log_file == nullptr ? kLogFatal : kLogInfo);
  WriteHost();
  store = std::make_unique<sim::StoreDaemon>(store_provider_, kStoreEndpoint, registry_);
  store_provider_.RunAsync(1);
  sim::Manager::Options options;
  options.transport_node_id = kNodeId;
  manager = std::make_unique<sim::Manager>(options);
  manager->StartProxy();
  for (const char* aph : kAphs) manager->AddAph(aph, aph == kAphs[0]);
  host_management = std::make_unique<sim::HostManagement>();
  machines = std::make_unique<sim::VirtualMachines>(*host_management, host.VmFile());
  guests = std::make_unique<WorldGuests>(*manager, store->store(), small_logon_cache);
  ids = std::make_unique<WorldIds>(*manager);
  inventory = std::make_unique<WorldInventory>(host, *machines, *manager, store->store());
  traces = std::make_unique<WorldTraces>(*manager, *machines);
  services = std::make_unique<WorldServices>(*manager, store->store());
  capture = std::make_unique<WorldCapture>(clock, *manager);
  flow = std::make_unique<WorldFlow>(store->store());
  if (Tarvik::LoadPlatformInfo() != 0) throw std::runtime_error("the node has no platform");
}

WorldNode::~WorldNode() {
  if (app_) StopAgent();
  guests.reset();
  ids.reset();
  inventory.reset();
  traces.reset();
  services.reset();
  capture.reset();
  machines.reset();
  host_management.reset();
  manager.reset();
  store_provider_.StopAndWait(true);
  store.reset();
}

void WorldNode::WriteHost() {
  Write("/etc/zem_issue", "node-type: zem-qub\n");
  Write("/etc/orlane/zem-tarvik/zema.json", kRealizationOptions);
  Write("/etc/orlane/zem-tarvik/zem-da.xml", kDiscoveryOptions);
  std::filesystem::create_directories("/run/orlane");
  sim::HostSetup setup;
  setup.pnics += ",vmnic6";
  sim::SetUpHost(setup);
  std::filesystem::create_directories(kStateFolder);
  sim::LimitDisk(kStateFolder, "512");
}

void WorldNode::StartAgent() {
  if (!Tarvik::OpenShutdownPipe()) throw std::runtime_error("no shutdown pipe");
  provider_ = std::make_unique<AsioZemProvider>();
  store_client_ = std::make_shared<covedb::CoveDbClient>("tarvik-agent", kStoreEndpoint, *provider_, nullptr,
                                                         true, true, false);
  store_client_->StartAsync();
  TnProxyClientCommon::Init("tarvik", kInfoEndpoint, kForwardingEndpoint);
  proxy_client_ = TnProxyClientCommon::getInstance();
  provider_->RunAsync(5);
  app_ = std::make_unique<Tarvik::ZemaApp>(*provider_, nullptr, store_client_);
  app_->Start(false, false, false);
  alarms_ =
      std::make_shared<Tarvik::AlarmsProvider>(*provider_, store_client_, Tarvik::AlarmsProvider::Files());
  if (!alarms_->Start()) throw std::runtime_error("the alarms provider does not start");
  ids->StartAgent(*provider_);
  inventory->StartAgent(*provider_, store_client_);
  traces->StartAgent(*provider_);
  services->StartAgent(*provider_, store_client_);
  capture->StartAgent(*provider_);
  proxy_client_->Start();
  introspection.StartAgent(store_client_);
  guests->StartAgent(*provider_, store_client_);
  flow->StartAgent(introspection.profiles());
}

void WorldNode::Describe(std::vector<Tarvik::PartState>* parts) const {
  Tarvik::DescribeManager(*proxy_client_, parts);
  Tarvik::DescribeStore(store_client_.get(), parts);
  app_->Describe(parts);
  alarms_->Describe(parts);
}

void WorldNode::StopAgent() {
  Tarvik::CloseShutdownPipe();
  proxy_client_->Stop();
  services->StopAgent();
  flow->StopAgent();
  guests->StopAgent();
  ids->StopAgent();
  traces->StopAgent();
  inventory->StopAgent();
  capture->StopAgent();
  introspection.StopAgent();
  alarms_->Stop();
  app_->Stop(0);
  alarms_.reset();
  app_.reset();
  proxy_client_.reset();
  store_client_.reset();
  TnProxyClientCommon::Release();
  provider_->StopAndWait(true);
  provider_.reset();
}

}  // namespace zem::world
