#include "tests/world/world_flow.h"

#include <chrono>
#include <utility>

#include "app/ctxteng/flow/pace.h"
#include "platform/core/uuid.h"
#include "platform/upm/upm_service.h"
#include "proto/context/agent_config.pb.h"
#include "proto/context/pace.pb.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/profile_objects.pb.h"
#include "sim/kafka/flow_records.h"
#include "sim/store/store.h"

namespace zem::world {
namespace {

namespace covedb = orlane::zem::covedb;
namespace context = orlane::zem::context;
using orlane::zem::pace::PaceContextInfoMsg;

constexpr uint32_t kSmallQueue = 20;
constexpr size_t kMostWaiting = 3;
constexpr uint64_t kWantedMask = 0xE8E;
constexpr const char* kSite = "00000000-0000-0007-0000-000000000008";
// A message may be on its way while the collection is switched.
constexpr auto kOnItsWay = std::chrono::seconds(1);

// Calls `visit` with the number of each event of a message.
template <class Visit>
void ForEachTag(const PaceContextInfoMsg& message, const Visit& visit) {
  for (const auto& entry : message.guest_info().vm_map_entry()) {
    for (const auto& event : entry.vm_info().service_event()) visit(event.timestamp());
    for (const auto& event : entry.vm_info().user_event()) visit(event.timestamp());
  }
}

}  // namespace

class WorldFlow::Client final : public Ctxt::PaceClient::Pace {
 public:
  explicit Client(WorldFlow& world) : Pace(world.guests_, nullptr, world.deliveries_), world_(world) {}
  void SendContextInfo(const PaceContextInfoMsg& msg) override { world_.Receive(msg.SerializeAsString()); }

 private:
  WorldFlow& world_;
};

WorldFlow::WorldFlow(sim::Store& store) : store_(store) {}
WorldFlow::~WorldFlow() = default;

void WorldFlow::StartAgent(const std::shared_ptr<upm::UPMService>& profiles) {
  {
    std::lock_guard lock(mutex_);
    given_.clear();
    unsure_.clear();
    first_seen_.clear();
  }
  client_ = std::make_shared<Client>(*this);
  client_->RegisterUpmMonitor(profiles);
  CtxtClientParam param;
  param.networkEventQueueSize = kSmallQueue;
  param.userEventQueueSize = kSmallQueue;
  client_->Initialize(param, nullptr);
}

void WorldFlow::StopAgent() {
  client_->Shutdown();
  client_.reset();
}

void WorldFlow::Change(std::mt19937_64& random) {
  for (uint64_t steps = 1 + random() % 30; steps > 0; --steps) Step(random);
}

void WorldFlow::Step(std::mt19937_64& random) {
  const auto number = static_cast<size_t>(random() % kGuests);
  Ctxt::GuestTable::Record& vm = running_[number];
  if (vm == nullptr) {
    vm = std::make_shared<Ctxt::VmData>();
    vm->vc_uuid = UuidText(UuidFromHalves(7, number + 1));
    vm->bios_uuid = vm->vc_uuid;
    guests_.Add(vm);
    client_->VmPowerOnEventHandler(vm);
    return;
  }
  const uint64_t tag = ++tags_;
  switch (random() % 12) {
    case 0:
      client_->VmPowerOffEventHandler(vm);
      static_cast<void>(guests_.Remove(vm));
      vm = nullptr;
      return;
    case 1:
      return client_->GiInfoHandler(vm);
    case 2:
    case 3:
    case 4: {
      auto session = std::make_shared<Ctxt::UserSessionInfo>();
      session->vc_uuid = vm->vc_uuid;
      session->session_type = static_cast<uint32_t>(1 + random() % 8);
      session->sid = session->dfw_key = "S-1-5-" + std::to_string(random() % 3);
      session->timestamp = tag;
      return Give(tag, [&] { client_->SystemEventHandler(session, vm); });
    }
    default: {
      auto connection = std::make_shared<Ctxt::ConnInfo>();
      connection->vc_uuid = vm->vc_uuid;
      connection->conn_type = random() % 2 == 0 ? Ctxt::CONN_TYPE_LISTEN_START : Ctxt::CONN_TYPE_LISTEN_STOP;
      connection->dest_ip = "10.0.0.1";
      connection->dest_port = 443;
      connection->process_name = "web";
      connection->process_dfw_key = random() % 3;
      connection->sid = "S-1-5-1";
      connection->timestamp = tag;
      return Give(tag, [&] { static_cast<void>(client_->NetworkEventHandler(connection, vm)); });
    }
  }
}

template <class Call>
void WorldFlow::Give(uint64_t tag, const Call& call) {
  const auto look = [this] {
    return std::tuple(client_->collection_enabled(), client_->collection(),
                      client_->statistics().dropped.load());
  };
  const auto before = look();
  call();
  const auto after = look();
  std::lock_guard lock(mutex_);
  first_seen_.try_emplace(std::get<1>(after), Clock::Process().Now());
  if (before != after) {
    unsure_.insert(tag);
  } else if (std::get<0>(before)) {
    given_[tag] = std::get<1>(before);
  }
}

// On the client's thread.
void WorldFlow::Receive(const std::string& bytes) {
  const uint64_t collection = client_->collection();
  const TimePoint now = Clock::Process().Now();
  PaceContextInfoMsg message;
  std::lock_guard lock(mutex_);
  if (!message.ParseFromString(bytes)) return wrong_.push_back("a message that is none");
  const auto since = first_seen_.try_emplace(collection, now).first->second;
  ForEachTag(message, [&](uint64_t tag) {
    const auto given = given_.find(tag);
    if (given == given_.end() && unsure_.count(tag) == 0) {
      wrong_.push_back("event " + std::to_string(tag) + " was not given while anybody wanted it");
    } else if (given != given_.end() && given->second < collection && now - since > kOnItsWay) {
      wrong_.push_back("event " + std::to_string(tag) + " is of an earlier collection");
    }
  });
  if (brokers_there_) return Arrive(bytes);
  waiting_.push_back(bytes);
  if (waiting_.size() <= kMostWaiting) return;
  static_cast<void>(message.ParseFromString(waiting_.front()));
  ForEachTag(message, [this](uint64_t tag) { lost_.insert(tag); });
  waiting_.pop_front();
}

// With the mutex.
void WorldFlow::Arrive(const std::string& bytes) {
  PaceContextInfoMsg message;
  static_cast<void>(message.ParseFromString(bytes));
  ForEachTag(message, [this](uint64_t tag) {
    if (!arrived_.insert(tag).second) wrong_.push_back("event " + std::to_string(tag) + " arrived twice");
  });
  last_site_ = message.has_site_id() ? UuidText(message.site_id()) : "none";
  messages_.push_back(bytes);
}

void WorldFlow::SetBrokers(bool there) {
  std::lock_guard lock(mutex_);
  brokers_there_ = there;
  if (!there) return;
  for (const std::string& bytes : std::exchange(waiting_, {})) Arrive(bytes);
}

void WorldFlow::PutProfile(const std::string& id, uint32_t type, const std::string& payload) {
  covedb::ProfileMsg profile;
  profile.set_id(id);
  profile.set_type(type);
  profile.set_payload(payload);
  profiles_[id] = profile.SerializeAsString();
  WriteProfiles({});
}

void WorldFlow::DropProfile(const std::string& id) {
  if (profiles_.erase(id) != 0) WriteProfiles(id);
}

void WorldFlow::WriteProfiles(const std::string& removed) {
  covedb::ModifyRequestMsg request;
  const auto put = [&request](covedb::ObjectType type, const std::string& object) {
    covedb::PutMsg* const change = request.add_modify_msg()->mutable_put_msg();
    change->set_object_type(type);
    change->set_object(object);
  };
  covedb::ProfileBindingMsg binding;
  binding.set_entity_id("transport-node");
  binding.set_entity_type(upm::ENTITY_TRANSPORT_NODE);
  for (const auto& [id, profile] : profiles_) {
    put(covedb::PROFILE, profile);
    binding.add_profile_id(id);
  }
  put(covedb::PROFILE_BINDING, binding.SerializeAsString());
  if (!removed.empty()) {
    covedb::ProfileMsg key;
    key.set_id(removed);
    covedb::DeleteMsg* const removal = request.add_modify_msg()->mutable_delete_msg();
    removal->set_object_type(covedb::PROFILE);
    removal->set_object(key.SerializeAsString());
  }
  if (!store_.Modify({request}).ok()) wrong_.emplace_back("the store refuses the node's profiles");
}

void WorldFlow::PutFlow(bool on, uint32_t interval) {
  context::ContextHostConfigMsg config;
  config.set_enabled_collection(on);
  config.set_collection_interval(interval);
  config.add_topic()->set_type(2);
  config.mutable_topic(0)->set_name("guests");
  PutProfile("flow", upm::CONTEXT_HOST_CONFIG, config.SerializeAsString());
}

void WorldFlow::Disturb(std::mt19937_64& random) {
  switch (random() % 8) {
    case 0:
      return PutFlow(false, 1);
    case 1:
      return DropProfile("flow");
    case 2:
      return DropProfile("site");
    case 3:
      return PutProfile("flow", upm::CONTEXT_HOST_CONFIG, "\xff\xff");
    case 4:
    case 5:
      return SetBrokers(!brokers_there_);
    default:
      return PutFlow(true, static_cast<uint32_t>(random() % 4));
  }
}

void WorldFlow::Calm() {
  SetBrokers(true);
  context::MetricsMuxUaProfileProtoMsg mux;
  mux.set_site_id(kSite);
  PutProfile("site", upm::METRICS_MUX_ON_UA_PROFILE, mux.SerializeAsString());
  PutFlow(true, 1);
}

std::vector<std::string> WorldFlow::Check() {
  if (!client_->collection_enabled()) return {"the collection is off though the manager wants it"};
  const uint64_t collection = client_->collection();
  std::vector<std::string> lines;
  for (const auto& vm : running_) {
    if (vm != nullptr && vm->zemi_event_mask.mask != kWantedMask) {
      lines.push_back(vm->vc_uuid + " has the mask " + std::to_string(vm->zemi_event_mask.mask));
    }
  }
  std::lock_guard lock(mutex_);
  lines.insert(lines.end(), wrong_.begin(), wrong_.end());
  for (const std::string& line : sim::JudgeFlowRecords(messages_).violations) lines.push_back(line);
  for (const auto& [tag, of] : given_) {
    if (of != collection || arrived_.count(tag) != 0 || lost_.count(tag) != 0) continue;
    lines.push_back("event " + std::to_string(tag) + " did not arrive, and nobody has counted it");
  }
  if (!messages_.empty() && last_site_ != kSite) lines.push_back("the last flow record is of " + last_site_);
  if (!lines.empty()) return lines;
  // Only the newest can still come twice.
  messages_.clear();
  given_.clear();
  unsure_.clear();
  return lines;
}

}  // namespace zem::world
