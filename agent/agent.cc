#include "agent/agent.h"

#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <boost/intrusive_ptr.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>

#include "agent/application_list.h"
#include "agent/application_table.h"
#include "agent/build_info.h"
#include "agent/combined_message.h"
#include "agent/manager_commands.h"
#include "agent/metrics_report.h"
#include "agent/metrics_socket.h"
#include "agent/service_notifier.h"
#include "agent/start_watchdog.h"
#include "agent/status_sources.h"
#include "covedbclient/covedb_client.h"
#include "framework/cli/builtin_commands.h"
#include "framework/cli/cli_server.h"
#include "framework/cli/json_writer.h"
#include "framework/dataplane/lcp_adapter.h"
#include "framework/log/log.h"
#include "framework/log/syslog_sink.h"
#include "framework/node/host_identity.h"
#include "framework/node/options.h"
#include "framework/node/platform_info.h"
#include "framework/process/memory_return.h"
#include "framework/process/shutdown_pipe.h"
#include "framework/status/status_board.h"
#include "framework/timeline/timeline_file.h"
#include "framework/timeline/why_command.h"
#include "mpaclient/proxy/tn_proxy_client_common.h"
#include "platform/core/thread.h"
#include "platform/core/thread_name.h"
#include "platform/daemonhealth/daemon_health_service.h"
#include "platform/metrics/metrics.h"
#include "platform/provider/metrics_collector.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/provider/work_group.h"
#include "platform/rpc/server.h"
#include "platform/rpc/transport.h"
#include "platform/sha/sha_pm_client.h"
#include "platform/upm/upm_service.h"
#include "platform/wft/workflow_util.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};
constexpr LogSource kMpaLog{"mpa-client"};

constexpr const char* kProcessName = "zem-tarvik";
constexpr const char* kMainThreadName = "tarvik";

constexpr const char* kProxyClientId = "tarvik";
constexpr const char* kProxyEndpoint = "tcp://127.0.0.1:9004";
constexpr const char* kProxyStubsEndpoint = "tcp://127.0.0.1:4096";
constexpr const char* kStoreClientId = "tarvik-agent";
// In the folder of the realization's other state, whose operations it tells of.
constexpr const char* kTimelinesPath = "/etc/orlane/zem-tarvik/failed_operations.jsonl";
// In memory: marks are written while operations run.
constexpr const char* kMarksPath = "/var/run/orlane/zem-tarvik/.operations_under_way";
constexpr const char* kStoreEndpoint = "tcp://127.0.0.1:2480";
constexpr const char* kHealthEndpoint = "tcp://127.0.0.1:4098";
// Every process of the host may connect to the health service.
constexpr size_t kHealthConnections = 32;
constexpr const char* kAgentLink = "/var/run/orlane/zem-agent/zema_link";
constexpr const char* kGatewayLink = "/var/run/orlane/gw-controller/gw_link";

constexpr uint32_t kHealthMajor = 2;
constexpr uint32_t kHealthMinor = 3;
constexpr uint32_t kMetricIntervalS = 20;
constexpr uint32_t kHeartbeatS = 5;
constexpr uint32_t kHeartbeatStaleS = 30;
constexpr auto kMemoryReturnPeriod = std::chrono::seconds(10);
constexpr auto kStatusPeriod = std::chrono::seconds(1);
constexpr int kTarvikThreads = 4;
constexpr int kFrameworkThreads = 10;
constexpr int kProviderThreads = 5;

// The node types that have a local store.
constexpr uint32_t kStoreNodes = kNodeQub | kNodeKvm | kNodeBareMetalServer | kNodeBareMetalContainer;

void EnableCoreDumps() {
  const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
  if (::setrlimit(RLIMIT_CORE, &unlimited) == 0) {
    ZLOG_DEBUG("Enable core dump");
  } else {
    ZLOG_ERROR("OPS00303", "Failed to enable core dump: %s", std::strerror(errno));
  }
}

// A peer that closes its socket must not end the process.  Child processes get the default disposition.
void IgnoreBrokenPipes() {
  struct sigaction action {};
  action.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &action, nullptr);
}

SyslogSink* the_syslog = nullptr;

void ExitAtOnce(int) {
  if (the_syslog != nullptr) {
    the_syslog->Exit(0);
  } else {
    ::_Exit(0);
  }
}

// The store has refused a write for good.  The line that says so is the reason for the end, so it and what
// waits before it still go to the log; nothing of this thread's may go on meanwhile.
[[noreturn]] void EndWithLog(int code) {
  std::fflush(nullptr);
  if (the_syslog == nullptr) ::_Exit(code);
  the_syslog->Exit(code);
  for (;;) SleepFor(std::chrono::hours(1));
}

void InstallExitHandlers() {
  struct sigaction action {};
  action.sa_handler = &ExitAtOnce;
  ::sigfillset(&action.sa_mask);
  ::sigaction(SIGTERM, &action, nullptr);
  ::sigaction(SIGINT, &action, nullptr);
}

}  // namespace

Agent::Settings::Settings() : options_path(kOptionsPath) {}

class Agent::Impl {
 public:
  explicit Impl(Settings settings) : settings_(settings) {}

  int Start();
  void Serve();
  void Stop();
  void Interrupt() {
    if (provider_) provider_->Stop();
  }

 private:
  void RefuseStart(const std::string& text);
  bool LoadConfiguration();
  void StartFrame();
  void StartStore();
  void StartMemoryReturn();
  void StartStatus();
  void StartMetrics();
  void GetStore(CliReply reply) const;
  void StartHealthService();
  void Serving();
  void EnterStep(const char* step);

  const Settings settings_;
  // Watches the loops until the last of them has ended.
  ServiceNotifier service_;
  std::optional<StartWatchdog> watchdog_;
  bool host_role_ = false;

  // In order of creation; Stop destroys them in reverse order.
  std::unique_ptr<AsioZemProvider> provider_;
  boost::intrusive_ptr<WorkGroup> tarvik_group_;
  boost::intrusive_ptr<LcpAdapter> lcp_adapter_;
  std::unique_ptr<metrics::MetricsCollector> metrics_collector_;
  boost::intrusive_ptr<WorkGroup> framework_group_;
  std::mutex memory_mutex_;  // guards memory_return_
  MemoryReturn memory_return_;
  std::shared_ptr<Timer> memory_timer_;
  std::unique_ptr<sha::ShaPmClient> health_client_;
  std::shared_ptr<covedb::CoveDbClient> store_client_;
  std::shared_ptr<upm::UPMService> update_service_;
  std::shared_ptr<StatusBoard> status_;
  std::shared_ptr<Timer> status_timer_;
  std::unique_ptr<MetricsReport> metrics_report_;
  std::unique_ptr<MetricsSocket> metrics_socket_;
  std::optional<TimelineFile> timelines_;
  boost::intrusive_ptr<CliServer> cli_server_;
  std::optional<ApplicationList> applications_;
  std::unique_ptr<rpc::Server> health_server_;
};

int Agent::Impl::Start() {
  IgnoreBrokenPipes();
  MemoryReturn::Configure();
  InstallLibraryLogBridge();
  if (LoadPlatformInfo() != 0) {
    RefuseStart("Error: Failed to load platform information.\n");
    return -1;
  }
  if (!LoadConfiguration()) return -1;
  watchdog_.emplace();
  StartFrame();
  if (!OpenShutdownPipe()) {
    RefuseStart("Error: Initializing Shutdown Pipe.\n");
    return -1;
  }
  StartStore();
  StartHealthService();
  applications_->Start();
  applications_->WaitStarted();
  Serving();
  return 0;
}

void Agent::Impl::RefuseStart(const std::string& text) {
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
  service_.NotStarted(text);
}

bool Agent::Impl::LoadConfiguration() {
  const char* const path = settings_.options_path;
  if (!LoadOptions(path)) {
    RefuseStart(std::string("Error: ZEM Tarvik failed to start.\nConfiguration file ") + path +
                " is invalid.\n");
    return false;
  }
  ApplyLoggingOptions();
  ::openlog(kProcessName, LOG_PID, LOG_DAEMON);
  ::setlogmask(255);
  the_syslog = &Logger::StartSyslog(kProcessName);
  ZLOG_INFO("Build Number: %s", BuildInfo::c_str());
  ApplyTracingOptions();
  ApplyModeOptions();
  EnableCoreDumps();
  return true;
}

// Creates the event provider, determines the role, and starts what the role needs first.
void Agent::Impl::StartFrame() {
  EnterStep("event provider");
  boost::property_tree::ptree provider_options;
  provider_options.put("provider.stop_on_signals", false);
  provider_ = std::make_unique<AsioZemProvider>(provider_options, "");
  host_role_ = !IsZemManager() && !IsZemController() && !IsUnifiedAppliance();
  if (host_role_) {
    const bool gateway = IsPublicCloudGateway();
    tarvik_group_ = new WorkGroup("tarvik", provider_->metrics(), WorkGroup::kUnbounded);
    tarvik_group_->Start(kTarvikThreads);
    lcp_adapter_ = new LcpAdapter(tarvik_group_, gateway ? kGatewayLink : kAgentLink);
    lcp_adapter_->Start(*provider_);
  }
  if (OptionSectionGiven("metrics.collector")) {
    boost::property_tree::ptree collector;
    collector.put("file", OptionText("metrics.collector.file"));
    collector.put("intervalSec", OptionNumber("metrics.collector.intervalSec"));
    metrics_collector_ = std::make_unique<metrics::MetricsCollector>(*provider_, collector);
  }
}

void Agent::Impl::StartStore() {
  EnterStep("framework work group");
  framework_group_ = new WorkGroup("framework", provider_->metrics(), WorkGroup::kUnbounded);
  framework_group_->Start(kFrameworkThreads);
  StartMemoryReturn();

  health_client_ = std::make_unique<sha::ShaPmClient>(kProcessName);
  health_client_->Start();
  health_client_->RegisterCombinedMessageMetricCollection("combined.message", &BuildCombinedMessage, nullptr,
                                                          kMetricIntervalS);
  health_client_->StartMetricCollection();
  health_client_->StartProcessHeartbeat(kHeartbeatS, kHeartbeatStaleS);

  ZLOG_TO(kMpaLog, kLogInfo, "Starting MPA client event loop thread...");
  TnProxyClientCommon::Init(kProxyClientId, kProxyEndpoint, kProxyStubsEndpoint);

  EnterStep("store client");
  ZLOG_DEBUG(":Connecting to Covedb on Host end point %s ", kStoreEndpoint);
  if ((GetNodeType() & kStoreNodes) != 0 || IsEdgeOrPcg()) {
    store_client_ = std::make_shared<covedb::CoveDbClient>(kStoreClientId, kStoreEndpoint, *provider_,
                                                           nullptr, true, true, false, &EndWithLog);
    store_client_->StartAsync();
  }
  update_service_ = std::make_shared<upm::UPMService>(store_client_);
  StartStatus();
  cli_server_ = new CliServer(framework_group_);
  cli_server_->AddCommands(BuiltinCommands());
  cli_server_->AddCommands(ManagerCommands());
  cli_server_->AddCommands(
      {{"get/options", "", 0, 0, [](const CliArguments&, CliReply reply) { reply.Ok(OptionsInForce()); }}});
  timelines_.emplace(kTimelinesPath, kMarksPath);
  cli_server_->AddCommands({WhyCommand(*timelines_)});
  cli_server_->AddCommands({StopCommand([this] { Interrupt(); })});
  cli_server_->AddCommands(
      {StatusCommand(status_, BuildInfo::c_str(), [] { return Host().id().value_or(std::string()); })});
  StartMetrics();
  applications_.emplace(ApplicationTable(), host_role_, [this](const char* step) { EnterStep(step); });
  applications_->Create(
      {*provider_, store_client_, lcp_adapter_, cli_server_, update_service_, framework_group_, status_});
  if (store_client_) wft::WorkflowUtil::Init(store_client_, kProcessName);
}

void Agent::Impl::EnterStep(const char* step) {
  watchdog_->Enter(step);
  service_.Starting(step);
  if (status_) status_->SetPhase(StatusBoard::Phase::kStarting, step);
}

// "get/store": the connection's state, and the writes that wait for it.
void Agent::Impl::GetStore(CliReply reply) const {
  if (store_client_ == nullptr) return reply.Error("This node has no local store");
  const uint64_t pending = StoreWrites().depth;
  JsonValue answer = JsonValue::Object();
  answer.Add("state", covedb::ClientStateName(store_client_->state())).Add("pending_writes", pending);
  reply.Ok(answer.Text());
}

void Agent::Impl::StartMetrics() {
  std::vector<boost::intrusive_ptr<WorkGroup>> groups = {framework_group_};
  if (tarvik_group_) groups.push_back(tarvik_group_);
  metrics_report_ = std::make_unique<MetricsReport>(*provider_, status_, std::move(groups));
  cli_server_->AddCommands(
      {{"get/metrics", "", 0, 0,
        [this](const CliArguments&, CliReply reply) { reply.Ok(metrics_report_->Text()); }},
       {"get/store", "", 0, 0, [this](const CliArguments&, CliReply reply) { GetStore(std::move(reply)); }}});
  const std::string path = OptionText("metrics.socket");
  if (path.empty()) return;
  metrics_socket_ = std::make_unique<MetricsSocket>(path, [this] { return metrics_report_->Text(); });
  const bool served = metrics_socket_->Start();
  if (!served) metrics_socket_.reset();
  status_->AddSource("metrics socket", [path, served](std::vector<PartState>* parts) {
    PartState socket{"metrics socket", {}, {}};
    if (!served) {
      socket.fault = path + " cannot be served";
      socket.heals = "repair what the log names, then restart the daemon";
    }
    parts->push_back(std::move(socket));
  });
}

void Agent::Impl::StartStatus() {
  status_ = std::make_shared<StatusBoard>(framework_group_);
  status_->AddSource("manager", [proxy = TnProxyClientCommon::getInstance()](std::vector<PartState>* parts) {
    DescribeManager(*proxy, parts);
  });
  if (lcp_adapter_) {
    status_->AddSource("dataplane link", [adapter = lcp_adapter_](std::vector<PartState>* parts) {
      DescribeDataplane(*adapter, parts);
    });
  }
  status_->AddSource("store",
                     [this](std::vector<PartState>* parts) { DescribeStore(store_client_.get(), parts); });
  status_timer_ = provider_->timers().ScheduleRepeated(
      kStatusPeriod, [status = status_] { status->Refresh(); }, TimerOptions::Default);
}

// Runs on the work group's threads, because it may take some milliseconds.
void Agent::Impl::StartMemoryReturn() {
  memory_timer_ = provider_->timers().ScheduleRepeated(
      kMemoryReturnPeriod,
      [this, group = framework_group_] {
        const bool queued = group->Enqueue(MakeWorkItem([this] {
          std::lock_guard lock(memory_mutex_);
          if (memory_return_.GiveBack()) ZLOG_DEBUG("memory that big work had left free has gone back");
        }));
        if (!queued) ZLOG_DEBUG("no look at the memory, the work group has stopped");
      },
      TimerOptions::Default);
}

void Agent::Impl::StartHealthService() {
  EnterStep("health service");
  orlane::zem::ProductVersionMsg version;
  version.set_major(kHealthMajor);
  version.set_minor(kHealthMinor);
  rpc::ServerBuilder builder(provider_->rpc());
  rpc::ConnectionOptions options;
  options.accepted_limit = kHealthConnections;
  builder.AddListeningEndpoint(net::Endpoint(kHealthEndpoint), options);
  builder.AddLocalEndpointId(kProcessName);
  builder.RegisterService(std::make_shared<DaemonHealthService>(version));
  health_server_ = builder.BuildStarted();
}

void Agent::Impl::Serving() {
  EnterStep("proxy client");
  // Started last, so that every vertical is registered when the connection comes up.
  TnProxyClientCommon::getInstance()->Start();
  SetThreadName(kMainThreadName);
  if (settings_.handle_signals) InstallExitHandlers();
  watchdog_.reset();
  status_->SetPhase(StatusBoard::Phase::kServing);
  service_.Serving(*provider_);
}

void Agent::Impl::Serve() { provider_->Run(kProviderThreads); }

void Agent::Impl::Stop() {
  service_.Stopping();
  metrics_socket_.reset();
  status_->SetPhase(StatusBoard::Phase::kStopping);
  status_timer_->Cancel();
  status_->Close();
  CloseShutdownPipe();
  memory_timer_->Cancel();
  ZLOG_TO(kMpaLog, kLogInfo, "Stopping MPA client event loop thread...");
  if (const auto proxy = TnProxyClientCommon::getInstance()) proxy->Stop();
  applications_->Stop();
  if (host_role_) {
    lcp_adapter_->Stop();
    lcp_adapter_.reset();
    tarvik_group_->Stop();
  }
  framework_group_->Stop();
  framework_group_.reset();
  health_client_->StopMetricCollection();
  health_client_->UnregisterMetricCollectionAll();
  health_client_->StopProcessHeartbeat();
  health_client_->Stop();
  ZLOG_INFO("ZEM Tarvik stop...");

  health_server_.reset();
  applications_.reset();
  cli_server_.reset();
  metrics_report_.reset();
  status_.reset();
  timelines_.reset();
  update_service_.reset();
  wft::WorkflowUtil::Init(nullptr, "");
  store_client_.reset();
  health_client_.reset();
  metrics_collector_.reset();
  tarvik_group_.reset();
  TnProxyClientCommon::Release();
  provider_.reset();
  if (the_syslog != nullptr) the_syslog->Stop();
}

Agent::Agent(Settings settings) : impl_(std::make_unique<Impl>(settings)) {}

Agent::~Agent() = default;

int Agent::Start() { return impl_->Start(); }

void Agent::Serve() { impl_->Serve(); }

void Agent::Stop() { impl_->Stop(); }

void Agent::Interrupt() { impl_->Interrupt(); }

}  // namespace zem::Tarvik
