#include "app/zemda/service/discovery_agent.h"

#include <utility>

#include "app/zemda/base/da_properties.h"
#include "app/zemda/base/data_collector.h"
#include "app/zemda/base/host_info.h"
#include "app/zemda/collector/qub_data_collector.h"
#include "app/zemda/delivery/communication_handler.h"
#include "app/zemda/delivery/data_sender.h"
#include "app/zemda/records/covedb_connection_handler.h"
#include "app/zemda/records/vm_config_msg_handler.h"
#include "framework/cli/json_writer.h"
#include "framework/log/log.h"
#include "platform/provider/provider.h"
#include "proto/ida/ida.pb.h"

namespace ZemDa {
namespace {

constexpr zem::LogSource kLog{"tarvik", "zemda"};

class QubCollectorProxy final : public DataCollectorProxyBase {
 public:
  /// The process's, which registers itself.
  static void Create() {
    ZLOG_DEBUG("Creating QubDataCollector proxy.");
    static QubCollectorProxy proxy;
  }

  std::shared_ptr<DataCollector> create() override { return create(std::make_shared<DcQueue>()); }
  std::shared_ptr<DataCollector> create(std::shared_ptr<DcQueue> queue) override {
    QubDataCollector::Sources sources;
    sources.store = CoveDBConnectionHandler::GetInstance();
    return std::make_shared<QubDataCollector>(std::move(queue), std::move(sources));
  }
  int32_t host_type() const override { return HostInfo::kQub; }
};

// Between a message and its acknowledgement the sender waits, too.
constexpr auto kAnswerPatience = std::chrono::minutes(2);

const char* StateWord(DataSender::State state) {
  switch (state) {
    case DataSender::kWaitingForData:
      return "up to date";
    case DataSender::kWaiting:
      return "waiting for the manager";
    case DataSender::kDoSyncInit:
      return "sending everything";
  }
  return "unknown";
}

}  // namespace

/// In the order in which they are made; each uses those above it.
struct DiscoveryAgent::Parts {
  std::shared_ptr<DcQueue> queue;
  std::unique_ptr<Interruption> store_reads;
  std::unique_ptr<VmConfigMsgHandler> vms;
  std::shared_ptr<DataSender> sender;
  std::shared_ptr<DataCollector> collector;
  std::unique_ptr<CommunicationHandler> handler;
};

DiscoveryAgent::DiscoveryAgent(zem::AsioZemProvider& provider,
                               std::shared_ptr<zem::covedb::CoveDbClientInterface> store)
    : provider_(provider), store_(std::move(store)), parts_(std::make_unique<Parts>()) {}

DiscoveryAgent::~DiscoveryAgent() = default;

int DiscoveryAgent::start() {
  ZLOG_INFO("Starting Discovery Agent.");
  ZLOG_INFO("Loading Discovery Agent properties.");
  static_cast<void>(DaProperties::Load());  // logged; the defaults hold
  ZLOG_INFO("Loading host information.");
  const auto host = HostInfo::Get();
  if (!host->valid()) {
    ZLOG_ERROR("MPA20001", "Failed to get valid host type %s", host->TypeName().c_str());
    return -1;
  }
  ZLOG_INFO("Creating Message Queue for communication between DC and DS.");
  parts_->queue = std::make_shared<DcQueue>();
  ZLOG_INFO("Creating DataSender.");
  const auto store = CoveDBConnectionHandler::GetInstance();
  parts_->store_reads = std::make_unique<Interruption>();
  parts_->vms = std::make_unique<VmConfigMsgHandler>(store, parts_->store_reads.get());
  parts_->sender = std::make_shared<DataSender>(
      parts_->queue,
      [vms = parts_->vms.get()](const orlane::zem::ida::IdaMsg& message) { vms->process(message); });
  {
    const std::lock_guard lock(mutex_);
    sender_ = parts_->sender;
  }
  ZLOG_INFO("Creating DataCollector %s.", host->TypeName().c_str());
  QubCollectorProxy::Create();
  DataCollectorProxyBase* const proxy = DataCollectorProxyBase::Find(host->host_type());
  if (proxy == nullptr) {
    ZLOG_ERROR("MPA20001", "DataCollectorProxyBase not found for hostType %s.", host->TypeName().c_str());
    return -1;
  }
  parts_->collector = proxy->create(parts_->queue);
  ZLOG_INFO("Creating Communication Handler.");
  parts_->handler =
      std::make_unique<CommunicationHandler>(parts_->sender, parts_->collector, MakeManagerRoad(provider_));
  parts_->handler->InitiateMPAClient();
  store->connect(store_);
  return 1;
}

void DiscoveryAgent::Describe(std::vector<zem::Tarvik::PartState>* parts) const {
  std::shared_ptr<DataSender> sender;
  {
    const std::lock_guard lock(mutex_);
    sender = sender_;
  }
  if (sender == nullptr) return;
  zem::Tarvik::PartState inventory{"inventory", {}, {}};
  if (sender->state() == DataSender::kWaiting && sender->state_age() > kAnswerPatience) {
    inventory.fault = "the manager does not ask for the inventory, or does not acknowledge it";
    inventory.heals = "it is sent in full when the manager's inventory service answers";
  }
  parts->push_back(std::move(inventory));
}

std::vector<zem::Tarvik::CliCommand> DiscoveryAgent::Commands() {
  return {{"get/inventory", "", 0, 0, [this](const zem::Tarvik::CliArguments&, zem::Tarvik::CliReply reply) {
             std::shared_ptr<DataSender> sender;
             {
               const std::lock_guard lock(mutex_);
               sender = sender_;
             }
             if (sender == nullptr) return reply.Error("Not running");
             zem::JsonValue answer = zem::JsonValue::Object();
             answer.Add("state", StateWord(sender->state()))
                 .Add("records_waiting", uint64_t{sender->waiting()})
                 .Add("messages_sent", sender->sent());
             reply.Ok(answer.Text());
           }}};
}

void DiscoveryAgent::stop() {
  ZLOG_INFO("Shutting down Discovery Agent - Start");
  ZLOG_INFO("Shutting down Data Collector");
  ZLOG_INFO("Loading host information.");
  const auto host = HostInfo::Get();
  if (!host->valid()) {
    ZLOG_ERROR("MPA20001", "Failed to get valid host type %s while stopping, so skipping stop",
               host->TypeName().c_str());
    return;
  }
  if (parts_->handler != nullptr) parts_->handler->BeginStop();
  // The collector may wait for its turn behind a read of the sender's.
  if (parts_->store_reads != nullptr) parts_->store_reads->Request();
  const auto end = [](Thread* thread) {
    if (thread == nullptr || !thread->started()) return;
    thread->Stop();
    thread->Join();
  };
  end(parts_->collector.get());
  ZLOG_INFO("Shutting down Data Sender");
  end(parts_->sender.get());
  ZLOG_INFO("Shutting down MPA Client");
  if (parts_->handler != nullptr) parts_->handler->Stop();
  ZLOG_INFO("Shutting down Discovery Agent - Complete");
}

}  // namespace ZemDa
