// The node's peers, one row each.  A class adapts a peer to the node; it adds nothing else.

#include "sim/node/peer_table.h"

#include <array>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <utility>

#include "sim/alarmpeers/alarm_commands.h"
#include "sim/alarmpeers/alarm_peers.h"
#include "sim/alarms/collector.h"
#include "sim/capture/capture_commands.h"
#include "sim/dataplane/dataplane_commands.h"
#include "sim/dataplane/trace_agent.h"
#include "sim/dataplane/trace_commands.h"
#include "sim/firewall/firewall_commands.h"
#include "sim/guest/guest_commands.h"
#include "sim/guest/guest_picture.h"
#include "sim/guest/mux_peer.h"
#include "sim/guest/world/guest_world.h"
#include "sim/host/bundle_commands.h"
#include "sim/host/detection_commands.h"
#include "sim/host/host_commands.h"
#include "sim/host/host_management.h"
#include "sim/host/neighbour_commands.h"
#include "sim/idfw/logon_commands.h"
#include "sim/idfw/logon_receiver.h"
#include "sim/ids/detection_process.h"
#include "sim/ids/ids_commands.h"
#include "sim/ids/ids_ledger.h"
#include "sim/ids/ids_services.h"
#include "sim/ids/log_collector.h"
#include "sim/inventory/host_inventory.h"
#include "sim/inventory/inventory_commands.h"
#include "sim/inventory/inventory_daemon.h"
#include "sim/inventory/manager_inventory.h"
#include "sim/kafka/kafka_brokers.h"
#include "sim/kafka/kafka_commands.h"
#include "sim/manager/manager_commands.h"
#include "sim/manager/vif_commands.h"
#include "sim/node/vm_commands.h"
#include "sim/outsider/outsider_commands.h"
#include "sim/profiles/profile_commands.h"
#include "sim/sandbox/daemon_process.h"
#include "sim/sandbox/sandbox.h"
#include "sim/service/service_commands.h"
#include "sim/service/service_manager.h"
#include "sim/store/store_daemon.h"
#include "sim/switch/sim_state.h"
#include "sim/uploads/upload_commands.h"
#include "sim/uploads/upload_sink.h"

namespace zem::sim {
namespace {

// A peer that the node itself owns: the row only leads to its commands.
class OwnedByNode : public Peer {
 public:
  explicit OwnedByNode(const PeerContext& context) : context_(context) {}

 protected:
  const PeerContext context_;
};

class StorePeer final : public OwnedByNode {
 public:
  using OwnedByNode::OwnedByNode;
  void Register(CommandTable& table) override {
    RegisterStoreCommands(table, context_.store, context_.registry);
  }
};

class ManagerPeer final : public OwnedByNode {
 public:
  using OwnedByNode::OwnedByNode;
  void Register(CommandTable& table) override {
    RegisterManagerCommands(table, context_.manager);
    RegisterVifCommands(table, context_.manager);
  }
};

constexpr const char* kTraceCaptures = "/tmp/livetrace/pktcap";

class DataplanePeer final : public OwnedByNode {
 public:
  explicit DataplanePeer(const PeerContext& context)
      : OwnedByNode(context), traces_(context.dataplane, kTraceCaptures) {}
  void Register(CommandTable& table) override {
    RegisterDataplaneCommands(table, context_.dataplane);
    RegisterTraceCommands(table, traces_);
  }

 private:
  TraceAgent traces_;
};

class HostPeer final : public OwnedByNode {
 public:
  using OwnedByNode::OwnedByNode;
  void Register(CommandTable& table) override { RegisterHostCommands(table, context_.host); }
  std::vector<std::string> Violations() const override {
    std::vector<std::string> all = context_.switches.journal().Violations();
    for (std::string& violation : context_.host_management.violations()) all.push_back(std::move(violation));
    return all;
  }
};

class NeighbourPeer final : public OwnedByNode {
 public:
  using OwnedByNode::OwnedByNode;
  void Register(CommandTable& table) override { RegisterNeighbourCommands(table, context_.host); }
  std::vector<std::string> Violations() const override { return NeighbourViolations(); }
  std::vector<std::string> Draw(size_t /*most*/) const override { return DrawNeighbours(); }
};

class OutsiderPeer final : public Peer {
 public:
  explicit OutsiderPeer(const PeerContext& /*context*/) {}
  void Register(CommandTable& table) override { RegisterOutsiderCommands(table); }
};

class ServicePeer final : public Peer {
 public:
  explicit ServicePeer(const PeerContext& context) : service_(context.control_provider, context.daemon) {}
  void Register(CommandTable& table) override { RegisterServiceCommands(table, service_); }

 private:
  ServiceManager service_;
};

class BundlePeer final : public Peer {
 public:
  explicit BundlePeer(const PeerContext& /*context*/) {}
  void Register(CommandTable& table) override { RegisterBundleCommands(table); }
};

class VmPeer final : public OwnedByNode {
 public:
  using OwnedByNode::OwnedByNode;
  void Register(CommandTable& table) override {
    RegisterVmCommands(table, context_.machines, context_.manager, context_.host);
  }
};

class FirewallPeer final : public Peer {
 public:
  explicit FirewallPeer(const PeerContext& /*context*/) {}
  void Register(CommandTable& table) override { RegisterFirewallCommands(table); }
  std::vector<std::string> Draw(size_t most) const override { return DrawFirewall(most); }
};

class KafkaPeer final : public OwnedByNode {
 public:
  using OwnedByNode::OwnedByNode;
  void Register(CommandTable& table) override { RegisterKafkaCommands(table, context_.kafka); }
  std::vector<std::string> Violations() const override { return context_.kafka.Violations(); }
  std::vector<std::string> Draw(size_t /*most*/) const override { return context_.kafka.Draw(); }
};

class ProfilePeer final : public OwnedByNode {
 public:
  using OwnedByNode::OwnedByNode;
  void Register(CommandTable& table) override { RegisterProfileCommands(table, context_.store.store()); }
};

class DetectionPeer final : public Peer {
 public:
  explicit DetectionPeer(const PeerContext& /*context*/) {}
  void Register(CommandTable& table) override { RegisterDetectionCommands(table); }
  std::vector<std::string> Draw(size_t /*most*/) const override { return DrawDetection(); }
};

class AlarmsPeer final : public Peer {
 public:
  explicit AlarmsPeer(const PeerContext& context) : collector_(context.manager), clients_(kNodeDirectory) {}
  void Register(CommandTable& table) override { RegisterAlarmCommands(table, collector_, clients_); }
  std::vector<std::string> Violations() const override { return collector_.state().violations; }
  std::vector<std::string> Draw(size_t most) const override { return DrawAlarms(collector_, most); }

 private:
  Collector collector_;
  AlarmPeers clients_;
};

class LogonPeer final : public Peer {
 public:
  explicit LogonPeer(const PeerContext& context)
      : receiver_(context.manager, [&daemon = context.daemon] { return daemon.starts(); }) {}
  void Register(CommandTable& table) override { RegisterLogonCommands(table, receiver_); }
  std::vector<std::string> Violations() const override { return receiver_.state().violations; }
  std::vector<std::string> Draw(size_t /*most*/) const override { return DrawLogons(receiver_); }

 private:
  LogonReceiver receiver_;
};

class CapturePeer final : public Peer {
 public:
  explicit CapturePeer(const PeerContext& /*context*/) {}
  void Register(CommandTable& table) override { capture::RegisterCaptureCommands(table, host_); }
  std::vector<std::string> Draw(size_t /*most*/) const override { return capture::DrawCapture(); }

 private:
  capture::CaptureHost host_;
};

constexpr const char* kInventorySocket = "/etc/orlane/QubDiscoveryAgent";

class InventoryPeer final : public Peer {
 public:
  explicit InventoryPeer(const PeerContext& context)
      : host_(context.host, context.machines), daemon_(host_, kInventorySocket), manager_(context.manager) {}
  void Register(CommandTable& table) override { RegisterInventoryCommands(table, host_, daemon_, manager_); }
  std::vector<std::string> Violations() const override { return manager_.state().violations; }
  std::vector<std::string> Draw(size_t /*most*/) const override { return DrawInventory(manager_); }

 private:
  HostInventory host_;
  InventoryDaemon daemon_;
  ManagerInventory manager_;
};

constexpr const char* kAlertSocket = "/var/log/zem-idps/eve.socket";
constexpr const char* kCaptures = "/var/log/zem-idps/pcaps";
constexpr const char* kLoggerSocket = "/var/log/zem-idps/zem-idps-events.socket";
constexpr std::chrono::seconds kBrokersPatience{60};

class IdsPeer final : public Peer {
 public:
  explicit IdsPeer(const PeerContext& context)
      : detection_(kAlertSocket, kCaptures, ledger_),
        services_(context.manager, ledger_),
        peers_{detection_, logger_, services_, ledger_, [&kafka = context.kafka](const std::string& topic) {
                 const auto brokers = kafka.brokers();
                 if (!brokers) throw std::runtime_error("the brokers do not run");
                 auto read = brokers->Read(topic, kBrokersPatience);
                 if (!read.error.empty()) throw std::runtime_error(read.error);
                 return std::move(read.messages);
               }} {}
  void Register(CommandTable& table) override { RegisterIdsCommands(table, peers_); }
  std::vector<std::string> Violations() const override { return ledger_.violations(); }
  std::vector<std::string> Draw(size_t /*most*/) const override { return DrawIds(peers_); }

 private:
  IdsLedger ledger_;
  DetectionProcess detection_;
  LogCollector logger_{kLoggerSocket};
  IdsServices services_;
  const IdsPeers peers_;
};

constexpr const char* kMuxSocket = "/run/orlane/zem-context-mux/48655";
constexpr std::chrono::seconds kGuestTick{10};

class GuestPeer final : public Peer {
 public:
  explicit GuestPeer(const PeerContext& context) : world_(context.guests) {}
  void Register(CommandTable& table) override { guest::RegisterGuestCommands(table, world_); }
  std::vector<std::string> Violations() const override { return world_.violations(); }
  std::vector<std::string> Draw(size_t most) const override { return guest::DrawGuests(world_, most); }

 private:
  guest::GuestWorld& world_;
};

class MuxRow final : public Peer {
 public:
  explicit MuxRow(const PeerContext& context)
      : world_(context.guests), peer_(world_, kMuxSocket, kGuestTick) {}
  void Register(CommandTable& table) override { guest::RegisterMuxCommands(table, world_, peer_); }

 private:
  guest::GuestWorld& world_;
  guest::MuxPeer peer_;
};

// HTTPS; the network is the node's own.
constexpr uint16_t kUploadPort = 443;
// Below the node's folder, where its users find the files from outside.
constexpr const char* kUploads = "/run/zem-node/uploads";

class UploadPeer final : public Peer {
 public:
  explicit UploadPeer(const PeerContext& /*context*/) {}
  void Register(CommandTable& table) override { RegisterUploadCommands(table, sink_); }
  std::vector<std::string> Violations() const override { return sink_.state().violations; }

 private:
  UploadSink sink_{kUploads, kUploadPort};
};

template <class Row>
std::unique_ptr<Peer> Make(const PeerContext& context) {
  return std::make_unique<Row>(context);
}

constexpr std::array kPeers = {
    PeerRow{"store", "The store daemon; \"store help\" lists its commands.", &Make<StorePeer>},
    PeerRow{"manager", "Proxy, APHs and manager; \"manager help\" lists their commands.", &Make<ManagerPeer>},
    PeerRow{"dataplane", "The dataplane agent; \"dataplane help\" lists its commands.", &Make<DataplanePeer>},
    PeerRow{"host", "The host and its management script; \"host help\" lists its commands.", &Make<HostPeer>},
    PeerRow{"lldp", "The neighbours of the host's interfaces; \"lldp help\" lists its commands.",
            &Make<NeighbourPeer>},
    PeerRow{"bundle", "The scripts of support bundles; \"bundle help\" lists their commands.",
            &Make<BundlePeer>},
    PeerRow{"fw", "The host's firewall; \"fw help\" lists its commands.", &Make<FirewallPeer>},
    PeerRow{"kafka", "Kafka brokers; \"kafka help\" lists their commands.", &Make<KafkaPeer>},
    PeerRow{"profile", "The node's profiles; \"profile help\" lists its commands.", &Make<ProfilePeer>},
    PeerRow{"detection", "The intrusion detection process; \"detection help\" lists its commands.",
            &Make<DetectionPeer>},
    PeerRow{"alarm", "The collector and the alarm clients; \"alarm help\" lists their commands.",
            &Make<AlarmsPeer>},
    PeerRow{"idfw", "The manager's receiver of logons; \"idfw help\" lists its commands.", &Make<LogonPeer>},
    PeerRow{"inventory",
            "The host's inventory at its daemon and at the manager; \"inventory help\" lists its commands.",
            &Make<InventoryPeer>},
    PeerRow{
        "capture",
        "Traffic at the host's capture points, and the capture tools; \"capture help\" lists the commands.",
        &Make<CapturePeer>},
    PeerRow{"ids", "The detection process and its logger; \"ids help\" lists their commands.",
            &Make<IdsPeer>},
    PeerRow{"guest", "The host's guests; \"guest help\" lists their commands.", &Make<GuestPeer>},
    PeerRow{"mux", "The guests' multiplexer; \"mux help\" lists its commands.", &Make<MuxRow>},
    PeerRow{"uploads", "The manager's target for files; \"uploads help\" lists its commands.",
            &Make<UploadPeer>},
    PeerRow{"outsider", "An unprivileged user's program; \"outsider help\" lists its commands.",
            &Make<OutsiderPeer>},
    PeerRow{"service", "The host's service manager; \"service help\" lists its commands.",
            &Make<ServicePeer>},
    PeerRow{"vm", "The host's VMs; \"vm help\" lists their commands.", &Make<VmPeer>},
};

}  // namespace

std::span<const PeerRow> PeerTable() { return kPeers; }

}  // namespace zem::sim
