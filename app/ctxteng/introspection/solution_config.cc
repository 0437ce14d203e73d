#include "app/ctxteng/introspection/solution_config.h"

#include <utility>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/introspection/config_status.h"
#include "app/ctxteng/introspection/mux_pusher.h"
#include "app/ctxteng/introspection/partner_solutions.h"
#include "app/ctxteng/introspection/surroundings.h"
#include "covedbclient/covedb_client_interface.h"
#include "covedbclient/statements.h"
#include "framework/log/log.h"
#include "platform/rpc/status.h"
#include "proto/covedb/introspection_objects.pb.h"

namespace Ctxt {
namespace {

using orlane::zem::covedb::GI_SOLUTION_INFO;
namespace ouvi = orlane::zem::ouvi;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};
constexpr uint32_t kModuleId = 9;
constexpr const char* kOwnId = "100";
constexpr uint32_t kOwnConnectionType = 2;
constexpr uint32_t kOwnPort = 48656;

ouvi::GiSvmMsg OwnSvm() {
  ouvi::GiSvmMsg svm;
  svm.set_solution_id(kOwnId);
  auto* const connection = svm.add_connection_info();
  connection->set_type(kOwnConnectionType);
  connection->set_ip_address(0);
  connection->set_port(kOwnPort);
  return svm;
}

// The multiplexer's message of one of the store's.
ouvi::GiSvmMsg ToMux(const orlane::zem::covedb::GiSvmMsg& stored) {
  ouvi::GiSvmMsg svm;
  if (stored.has_solution_id()) svm.set_solution_id(stored.solution_id());
  if (stored.has_service_instance_id()) svm.set_service_instance_id(stored.service_instance_id());
  for (const auto& from : stored.connection_info()) {
    auto* const to = svm.add_connection_info();
    if (from.has_type()) to->set_type(from.type());
    if (from.has_ip_address()) to->set_ip_address(from.ip_address());
    if (from.has_port()) to->set_port(from.port());
  }
  if (!stored.has_extended_solution_config()) return svm;
  auto* const extended = svm.mutable_extended_solution_config();
  for (const auto& from : stored.extended_solution_config().pair()) {
    auto* const to = extended->add_pair();
    to->set_key(from.key());
    to->set_value(from.value());
  }
  return svm;
}

}  // namespace

SolutionConfig::SolutionConfig(std::shared_ptr<MuxPusher> pusher, std::shared_ptr<PartnerSolutions> solutions,
                               std::shared_ptr<ConfigHealth> health)
    : pusher_(std::move(pusher)),
      solutions_(std::move(solutions)),
      health_(std::move(health)),
      own_(OwnSvm()) {}

void SolutionConfig::Start(std::shared_ptr<zem::covedb::CoveDbClientInterface> store) {
  store_ = std::move(store);
  ouvi::MuxConfigMsg config;
  *config.mutable_sol_info()->add_gi_svm() = own_;
  ZLOG_INFO("OuviConfig: Added context engine to config message");
  if (pusher_->Push(config) == 0) {
    ZLOG_INFO("OuviConfig: Configured Mux with context engine config");
    SendStatus(*health_, ConfigStatus::kSolutionDone);
  } else {
    ZLOG_ERROR("ERR_CTXT_MUX_CTXTENG_CONFIG",
               "OuviConfig: Failed to configure Mux with context engine config");
    SendStatus(*health_, ConfigStatus::kSolutionRefused);
  }
  if (!store_) return;
  const std::weak_ptr<SolutionConfig> weak = weak_from_this();
  // Gives false when an earlier engine of the process has registered; its callbacks find nobody then.
  static_cast<void>(store_->RegisterMonitorCallback(
      kModuleId,
      [weak](const orlane::zem::covedb::MonitorUpdateMsg& update) {
        if (const auto self = weak.lock()) self->TakeUpdate(update);
      },
      [] { ZLOG_DEBUG("OuviConfig: CoveDbBarrierCallback entered"); }, zem::covedb::kDefaultVDb));
  if (!store_->ConfigureMonitor(zem::covedb::MonitorStatementsFor({GI_SOLUTION_INFO}), {}, kModuleId,
                                zem::covedb::kDefaultVDb)) {
    ZLOG_CTX_ERROR(356, "OuviConfig: Failed to configure Ouvi solution config monitor in CoveDB");
    SendStatus(*health_, ConfigStatus::kSolutionNotMonitored);
    return;
  }
  ZLOG_INFO("OuviConfig: Successsfully configured Ouvi solution config monitor in CoveDB");
}

void SolutionConfig::TakeUpdate(const orlane::zem::covedb::MonitorUpdateMsg& update) {
  ZLOG_INFO("OuviConfig: Received Covedb Monitor callback for GI_SOLUTION_INFO");
  if (update.object().empty()) {
    ZLOG_INFO("OuviConfig: Ignoring CoveDb callback for empty solution config");
    return;
  }
  TakeObject(update.object_type(), update.object());
}

void SolutionConfig::TakeObject(int type, const std::string& bytes) {
  if (type != GI_SOLUTION_INFO) {
    ZLOG_CTX_ERROR(354, "OuviConfig: Callback for incorrect msg type: %d, expected GI_SOLUTION_INFO", type);
    return;
  }
  const std::weak_ptr<SolutionConfig> weak = weak_from_this();
  pusher_->Post([weak, bytes] {
    if (const auto self = weak.lock()) self->Process(bytes);
  });
}

void SolutionConfig::Process(std::string bytes) {
  try {
    orlane::zem::covedb::GiSolutionInfoMsg stored;
    if (!stored.ParseFromString(bytes)) throw CtxtException("the solution config cannot be parsed");
    ZLOG_INFO("OuviConfig: Ouvi solution config update detected: %s", stored.ShortDebugString().c_str());
    ZLOG_INFO("OuviConfig: Process Update Entered");
    ouvi::MuxConfigMsg config;
    auto* const info = config.mutable_sol_info();
    if (stored.has_transport_node_id()) {
      *info->mutable_transport_node_id() = stored.transport_node_id();
    }
    *info->add_gi_svm() = own_;
    for (const auto& svm : stored.gi_svm()) *info->add_gi_svm() = ToMux(svm);
    solutions_->Take(*info, !last_);
    last_ = std::move(bytes);
    const bool done = pusher_->Push(config) == 0;
    if (!done) ZLOG_WARN("Failed to push SolutionConfig to MUX");
    SendStatus(*health_, done ? ConfigStatus::kSolutionDone : ConfigStatus::kSolutionRefused);
  } catch (const CtxtProtobufError& error) {
    ZLOG_ERROR("ERR_CTXT_SERIALIZE__MSG",
               "OuviConfig: Error in serializing solution config protobuf message, error: %s", error.what());
    SendStatus(*health_, ConfigStatus::kSolutionNotSerialized);
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(351, "OuviConfig: Error in processing Covedb solution config update message, error: %s",
                   error.what());
    SendStatus(*health_, ConfigStatus::kSolutionFailed);
  } catch (...) {
    ZLOG_CTX_ERROR(351, "OuviConfig: Unhandled exception in processing solution config updates");
    SendStatus(*health_, ConfigStatus::kSolutionFailed);
  }
}

void SolutionConfig::HandleMuxReconnect() {
  ZLOG_INFO("OuviConfig: SolutionConfig: HandleMuxReconnect");
  if (!store_) return;
  orlane::zem::covedb::ObjectRequestMsg all;
  all.set_object_type(GI_SOLUTION_INFO);
  const std::weak_ptr<SolutionConfig> weak = weak_from_this();
  const bool asked = store_->Get(
      {all},
      [weak](const std::list<orlane::zem::covedb::TypedObjectMsg>& objects, const zem::rpc::Status& status) {
        if (const auto self = weak.lock()) self->TakeObjects(objects, status);
      },
      zem::covedb::kDefaultVDb);
  if (asked) return;
  SendStatus(*health_, ConfigStatus::kSolutionFailed);
  ProcessLast();
}

// The store does not answer, but what it said last still holds.
void SolutionConfig::ProcessLast() {
  const std::weak_ptr<SolutionConfig> weak = weak_from_this();
  pusher_->Post([weak] {
    const auto self = weak.lock();
    if (self) self->Process(self->last_.value_or(""));
  });
}

void SolutionConfig::TakeObjects(const std::list<orlane::zem::covedb::TypedObjectMsg>& objects,
                                 const zem::rpc::Status& status) {
  ZLOG_INFO("OuviConfig: CoveDbGetCallback called, #objects: %zu, rpc status: %d", objects.size(),
            static_cast<int>(status.code()));
  if (!status.ok()) {
    ZLOG_CTX_ERROR(355, "OuviConfig: CoveDbGetCallback rpc status failure: %d",
                   static_cast<int>(status.code()));
    SendStatus(*health_, ConfigStatus::kSolutionFailed);
    ProcessLast();
    return;
  }
  if (objects.empty()) {
    ZLOG_INFO("OuviConfig: Solution config msg size <=0 received from CoveDB");
    // The engine itself is a solution of every node.
    const std::weak_ptr<SolutionConfig> weak = weak_from_this();
    pusher_->Post([weak] {
      if (const auto self = weak.lock()) self->Process("");
    });
    return;
  }
  for (const auto& object : objects) TakeObject(object.object_type(), object.object());
}

}  // namespace Ctxt
