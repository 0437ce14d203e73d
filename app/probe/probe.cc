#include "app/probe/probe.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/property_tree/ptree.hpp>
#include <charconv>
#include <cinttypes>
#include <map>
#include <optional>

#include "app/probe/kafka_probe.h"
#include "covedbclient/covedb_client_interface.h"
#include "covedbclient/statements.h"
#include "framework/dataplane/lcp_adapter.h"
#include "framework/log/log.h"
#include "framework/tasks/outcome.h"
#include "mpaclient/bus/bus_record.h"
#include "mpaclient/vertical/vertical_client.h"
#include "platform/core/uuid.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/lcp/lcp.pb.h"

namespace zem::Tarvik {
namespace {

using orlane::zem::covedb::MonitorUpdateMsg;
using orlane::zem::covedb::ObjectType;

constexpr LogSource kLog{"tarvik", "probe"};

constexpr uint32_t kModuleId = 9000;
constexpr uint8_t kLcpMessageFrame = 1;

std::vector<std::string> SplitList(const std::string& text) {
  std::vector<std::string> words;
  boost::split(words, text, boost::is_any_of(", "), boost::token_compress_on);
  std::erase(words, "");
  return words;
}

std::optional<std::string> FromHex(const std::string& hex) {
  if (hex.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  for (size_t i = 0; i < hex.size(); i += 2) {
    unsigned value = 0;
    const auto [end, error] = std::from_chars(hex.data() + i, hex.data() + i + 2, value, 16);
    if (error != std::errc() || end != hex.data() + i + 2) return std::nullopt;
    bytes.push_back(static_cast<char>(value));
  }
  return bytes;
}

std::optional<ObjectType> ParseType(const std::string& text) {
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  if (!orlane::zem::covedb::ObjectType_IsValid(number)) return std::nullopt;
  return static_cast<ObjectType>(number);
}

}  // namespace

class Probe::Impl {
 public:
  Impl(AsioZemProvider& provider, std::shared_ptr<covedb::CoveDbClientInterface> store,
       boost::intrusive_ptr<LcpAdapter> lcp_adapter, const boost::property_tree::ptree& options)
      : provider_(provider),
        store_(std::move(store)),
        lcp_adapter_(std::move(lcp_adapter)),
        object_types_(SplitList(options.get("objectTypes", ""))) {
    for (const std::string& name : SplitList(options.get("verticals", ""))) {
      if (const Vertical* const vertical = FindVertical(name)) {
        AddVertical(*vertical);
      } else {
        ZLOG_WARN("Not a vertical: %s", name.c_str());
      }
    }
  }

  void Start() {
    for (const auto& [name, client] : verticals_) client->Start();
    StartMonitor();
    if (lcp_adapter_ == nullptr) return;
    for (const auto* type : {orlane::zem::traceflow::TraceflowMsg::descriptor(),
                             orlane::zem::livetrace::LivetraceMsg::descriptor()}) {
      lcp_adapter_->RegisterHandler(type->full_name(), [](const google::protobuf::Message& message) {
        ZLOG_INFO("Dataplane agent: %s %s", message.GetTypeName().c_str(),
                  message.ShortDebugString().c_str());
      });
    }
  }

  void Stop() {
    for (const auto& [name, client] : verticals_) client->Stop();
    kafka_.Stop();
  }

  std::vector<CliCommand> KafkaCommands() { return kafka_.Commands(); }

  Outcome Send(const std::string& vertical, const std::string& kind, const std::string& type,
               const std::string& hex) {
    const auto found = verticals_.find(vertical);
    if (found == verticals_.end()) return Outcome::Failed("No such vertical: " + vertical);
    if (kind != "request" && kind != "publish")
      return Outcome::Failed("Bad kind: " + kind + " Expected: <request|publish>");
    auto payload = FromHex(hex);
    if (!payload) return Outcome::Failed("Bad payload: not hexadecimal");
    const auto record = kind == "request" ? kRmqClientRpcRequest : kRmqClientPublish;
    const VerticalClient& client = *found->second;
    const auto message = client.PrepareAs(record, type, std::move(*payload), RandomUuidText(), "");
    return client.SendPrepared(message) == VerticalClient::Sent::kSent
               ? Outcome::Done()
               : Outcome::Failed("Not sent: the manager cannot be reached");
  }

  Outcome Put(const std::string& type_text, const std::string& object) {
    const auto type = ParseType(type_text);
    if (!type) return Outcome::Failed("Not an object type: " + type_text);
    if (!store_) return Outcome::Failed("No store on this node");
    covedb::ModifyRequestMsg request;
    auto& put = *request.add_modify_msg()->mutable_put_msg();
    put.set_object_type(*type);
    put.set_object(object);
    put.add_vdb_id(covedb::kDefaultVDb);
    store_->Modify({request}, [object] { ZLOG_INFO("The store has taken: %s", object.c_str()); });
    return Outcome::Done();
  }

  Outcome SendToDataplane(const std::string& hex) {
    const auto bytes = FromHex(hex);
    orlane::zem::lcp::LcpDpMsg message;
    if (!bytes || !message.ParseFromString(*bytes))
      return Outcome::Failed("Bad message: not an LcpDpMsg in hexadecimal");
    if (lcp_adapter_ == nullptr) return Outcome::Failed("No dataplane link on this node");
    return lcp_adapter_->Send(kLcpMessageFrame, message)
               ? Outcome::Done()
               : Outcome::Failed("Not sent: the link does not take it");
  }

 private:
  void AddVertical(const Vertical& vertical) {
    auto receive = [this, &vertical](const VerticalRecord& record) {
      Receive(vertical.name, record);
      return true;
    };
    verticals_[vertical.name] = std::make_unique<VerticalClient>(
        provider_, vertical, VerticalClient::Callbacks{.intercept = std::move(receive)});
  }

  void StartMonitor() {
    if (!store_) return;
    store_->AddChannelStatusCallback([](bool up) { ZLOG_INFO("Store channel: %s", up ? "up" : "down"); });
    if (object_types_.empty()) return;
    if (!store_->RegisterMonitorCallback(
            kModuleId, [](const MonitorUpdateMsg& update) { LogUpdate(update); },
            [] { ZLOG_INFO("Store barrier"); }, covedb::kDefaultVDb)) {
      return;
    }
    std::list<covedb::MonitorStatementMsg> statements;
    for (const std::string& text : object_types_) {
      if (const auto type = ParseType(text)) {
        statements.push_back(covedb::MonitorStatementFor(*type));
      } else {
        ZLOG_WARN("Not an object type: %s", text.c_str());
      }
    }
    if (!store_->ConfigureMonitor(statements, {}, kModuleId, covedb::kDefaultVDb)) {
      ZLOG_WARN("The store client refused the monitor");
    }
  }

  static void LogUpdate(const MonitorUpdateMsg& update) {
    ZLOG_INFO("Store update: %s", update.ShortDebugString().c_str());
  }

  void Receive(const std::string& name, const VerticalRecord& record) {
    const BusHeader& header = record.header;
    ZLOG_INFO("[%s] Received %s type (%s) correlationId (%s), %" PRIu64 " bytes", name.c_str(),
              BusMessageTypeName(record.type()), header.type_id.c_str(), header.correlation_id.c_str(),
              static_cast<uint64_t>(record.payload().size()));
    if (record.type() != kRmqMpRpcRequest) return;
    const VerticalClient& client = *verticals_.at(name);
    const auto answer = client.PrepareAs(kRmqClientRpcResponse, header.type_id, std::string(record.payload()),
                                         header.correlation_id, header.reply_to);
    if (client.SendPrepared(answer) != VerticalClient::Sent::kSent)
      ZLOG_WARN("[%s] The answer was not sent", name.c_str());
  }

  AsioZemProvider& provider_;
  const std::shared_ptr<covedb::CoveDbClientInterface> store_;
  const boost::intrusive_ptr<LcpAdapter> lcp_adapter_;
  std::map<std::string, std::unique_ptr<VerticalClient>> verticals_;
  const std::vector<std::string> object_types_;
  KafkaProbe kafka_;
};

Probe::Probe(AsioZemProvider& provider, std::shared_ptr<covedb::CoveDbClientInterface> store,
             boost::intrusive_ptr<LcpAdapter> lcp_adapter, const boost::property_tree::ptree& options)
    : impl_(std::make_unique<Impl>(provider, std::move(store), std::move(lcp_adapter), options)) {}

Probe::~Probe() = default;

void Probe::Start() { impl_->Start(); }

void Probe::Stop() { impl_->Stop(); }

std::vector<CliCommand> Probe::Commands() {
  const auto answer = [](CliReply reply, const Outcome& outcome) {
    if (outcome.done()) {
      reply.Ok("Sent");
    } else {
      reply.Error(outcome.error());
    }
  };
  std::vector<CliCommand> commands = {
      {"probe/send", "<vertical> <request|publish> <type> <hex>", 4, 4,
       [impl = impl_.get(), answer](const CliArguments& arguments, CliReply reply) {
         answer(std::move(reply), impl->Send(arguments[0], arguments[1], arguments[2], arguments[3]));
       }},
      {"probe/lcp", "<hex>", 1, 1,
       [impl = impl_.get(), answer](const CliArguments& arguments, CliReply reply) {
         answer(std::move(reply), impl->SendToDataplane(arguments[0]));
       }},
      {"probe/put", "<type> <text>", 2, 2,
       [impl = impl_.get(), answer](const CliArguments& arguments, CliReply reply) {
         answer(std::move(reply), impl->Put(arguments[0], arguments[1]));
       }}};
  for (CliCommand& command : impl_->KafkaCommands()) commands.push_back(std::move(command));
  return commands;
}

}  // namespace zem::Tarvik
