#include "sim/node/node.h"

#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "platform/core/clock_factor.h"
#include "sim/control/control_server.h"
#include "sim/dataplane/dataplane_agent.h"
#include "sim/firewall/firewall_commands.h"
#include "sim/guest/world/guest_world.h"
#include "sim/host/raw_sockets.h"
#include "sim/kafka/kafka_commands.h"
#include "sim/killpoints/kill_page.h"
#include "sim/node/peer_table.h"
#include "sim/sandbox/sandbox.h"
#include "sim/switch/switch_commands.h"

namespace zem::sim {
namespace {

constexpr const char* kLogSocket = "/dev/log";
constexpr const char* kHealthSocket = "/run/orlane/zem-sha/agents";
constexpr const char* kStoreEndpoint = "tcp://127.0.0.1:2480";
constexpr const char* kAgentLink = "/run/orlane/zem-agent/zema_link";
constexpr const char* kIssueFile = "/etc/zem_issue";
constexpr const char* kOptionsFile = "/etc/orlane/zem-tarvik/zem-tarvik.xml";
// The folder of the host's key and certificate.
constexpr const char* kTrustStore = "/etc/orlane/zem/";
constexpr const char* kGuestFolder = "/run/orlane/guests";
constexpr const char* kRealizationFile = "/etc/orlane/zem-tarvik/zema.json";

void Write(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::trunc);
  out << text;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + path);
}

void PrintLine(const LogLine& line) {
  if (line.identity != "zem-tarvik") return;
  std::printf("%s\n", line.text.c_str());
  std::fflush(stdout);
}

Manager::Options ManagerOptions(const NodeOptions& node) {
  Manager::Options options;
  options.transport_node_id = node.transport_node_id;
  return options;
}

}  // namespace

Node::Node(NodeOptions options) : options_(std::move(options)) {
  WriteFiles();
  log_ = std::make_unique<LogSink>(kLogSocket, options_.follow_log ? &PrintLine : nullptr);
  health_ = std::make_unique<HealthSink>(kHealthSocket);
  store_ = std::make_unique<StoreDaemon>(store_provider_, kStoreEndpoint, registry_);
  store_provider_.RunAsync(1);
  manager_ = std::make_unique<Manager>(ManagerOptions(options_));
  manager_->StartProxy();
  bool master = true;
  for (const std::string& aph : options_.aphs) {
    manager_->AddAph(aph, master);
    master = false;
  }
  dataplane_ = std::make_unique<DataplaneAgent>(kAgentLink);
  listeners_ = std::make_unique<RawListeners>(control_provider_.io());
  host_management_ = std::make_unique<HostManagement>();
  machines_ = std::make_unique<VirtualMachines>(*host_management_, host_state_.VmFile());
  std::vector<std::string> words = options_.launcher;
  words.push_back(kDaemonPath);
  daemon_ = std::make_unique<DaemonProcess>(words.front(), std::string(kNodeDirectory) + "/daemon.out",
                                            std::vector<std::string>(words.begin() + 1, words.end()));
  daemon_->SetEnvironment("LD_LIBRARY_PATH", kLoadedLibraries);
  const std::string kill_page = std::string(kNodeDirectory) + "/kill-page";
  kill_switch_ = std::make_unique<KillSwitch>(kill_page);
  std::string preloaded = FilterDeviceLibrary();
  if (const std::string library = KillSwitch::Library(); !library.empty()) {
    preloaded = library + ":" + preloaded;
    daemon_->SetEnvironment(kKillPageVariable, kill_page);
  }
  if (!preloaded.empty()) daemon_->SetEnvironment("LD_PRELOAD", preloaded);
  if (const char* const factor = std::getenv(kClockFactorVariable)) {
    daemon_->SetEnvironment(kClockFactorVariable, factor);
  }

  MakePeers();
  RegisterSwitchCommands(commands_, switch_state_, libraries_);
  RegisterNodeCommands(commands_, *this);
  control_ =
      std::make_unique<ControlServer>(control_provider_, commands_, std::string(kNodeDirectory) + "/control");
  if (options_.start_daemon) daemon_->Start();
}

Node::~Node() {
  daemon_->Kill(SIGKILL);
  control_provider_.StopAndWait(true);
  daemon_.reset();
  control_.reset();
  while (!peers_.empty()) peers_.pop_back();
  manager_.reset();
  store_provider_.StopAndWait(true);
  store_.reset();
}

void Node::MakePeers() {
  guests_ = std::make_unique<guest::GuestWorld>(kGuestFolder);
  kafka_ = std::make_unique<KafkaService>(kTrustStore);
  const PeerContext context{options_,    control_provider_, *store_,           registry_,  *manager_,
                            *dataplane_, host_state_,       *host_management_, *machines_, switch_state_,
                            *guests_,    *kafka_,           *daemon_};
  for (const PeerRow& row : PeerTable()) {
    PeerEntry& entry = peers_.emplace_back();
    entry.name = row.name;
    entry.help = row.help;
    entry.peer = row.make(context);
    entry.peer->Register(entry.commands);
  }
}

void Node::WriteFiles() {
  if (!options_.issue.empty()) Write(kIssueFile, options_.issue);
  if (!options_.daemon_options.empty()) Write(kOptionsFile, options_.daemon_options);
  if (!options_.realization_options.empty()) Write(kRealizationFile, options_.realization_options);
  SetUpHost(options_.host);
  SetUpFirewall();
  if (std::string error; !libraries_.Install(&error)) throw std::runtime_error(error);
}

int Node::Run() {
  boost::asio::signal_set signals(control_provider_.io(), SIGINT, SIGTERM);
  signals.async_wait([this](const boost::system::error_code& error, int) {
    if (!error) control_provider_.Stop();
  });
  control_provider_.Run(2);
  return 0;
}

}  // namespace zem::sim
