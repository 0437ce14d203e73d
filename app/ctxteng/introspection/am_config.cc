#include "app/ctxteng/introspection/am_config.h"

#include <array>
#include <utility>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/introspection/mux_pusher.h"
#include "app/ctxteng/introspection/surroundings.h"
#include "covedbclient/codec/object_dispatcher.h"
#include "covedbclient/covedb_client_interface.h"
#include "covedbclient/statements.h"
#include "framework/log/log.h"
#include "platform/core/uuid.h"
#include "platform/rpc/status.h"
#include "proto/context/mux_config.pb.h"
#include "proto/covedb/firewall_objects.pb.h"
#include "proto/covedb/runtime_objects.pb.h"

namespace Ctxt {
namespace {

namespace store = orlane::zem::covedb;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};
constexpr uint32_t kModuleId = 10;
constexpr uint32_t kIntrospectionRule = 6;
constexpr uint32_t kIntrospectionSection = 5;
constexpr uint32_t kRuleSource = 2;
constexpr uint32_t kMuxSocketGone = 0x10005;
constexpr uint32_t kIntrospectionComponent = 13;
constexpr uint32_t kBarrierSize = 8;
constexpr const char* kMpsAttribute = "MPS";

// What an update says about an object: its new value, its old one, or both.
template <class Message>
struct OldAndNew {
  explicit OldAndNew(const store::MonitorUpdateMsg& update) {
    store::ObjectOpMsg operation;
    if (!operation.ParseFromString(update.operation())) throw CtxtException("an operation cannot be parsed");
    const bool removed = operation.operation() == store::ObjectOpMsg::DELETE;
    if (!removed) Parse(update.object(), &now);
    if (!update.old_object().empty()) {
      Parse(update.old_object(), &old);
    } else if (removed) {
      Parse(update.object(), &old);
    }
  }

  std::optional<Message> now;
  std::optional<Message> old;

 private:
  static void Parse(const std::string& bytes, std::optional<Message>* message) {
    message->emplace();
    if (!(*message)->ParseFromString(bytes)) throw CtxtException("an object cannot be parsed");
  }
};

AmTables::Groups GroupsOf(const store::VmGroupRelationMsg& relation) {
  return {relation.group_id().begin(), relation.group_id().end()};
}

std::optional<MpsConfig> MpsConfigOf(const store::ContextProfileMsg& profile) {
  std::optional<MpsConfig> config;
  for (const auto& attribute : profile.attribute()) {
    ZLOG_DEBUG("AMConfig : New ContextProfile UUID %s, Attribute Type : %s", profile.id().c_str(),
               attribute.type().c_str());
    if (attribute.type() != kMpsAttribute || attribute.value().empty()) continue;
    ZLOG_DEBUG("AMConfig : ContextProfile value %s", attribute.value(0).c_str());
    config = ReadMpsConfig(attribute.value(0));
  }
  return config;
}

}  // namespace

struct AMConfig::Dispatch {
  static constexpr zem::covedb::ObjectDispatcher kDispatcher{std::array{
      zem::covedb::ObjectHandler<AMConfig>{store::VM_GROUP_RELATION, &AMConfig::OnVmGroups},
      zem::covedb::ObjectHandler<AMConfig>{store::CONTEXT_PROFILE, &AMConfig::OnContextProfile},
      zem::covedb::ObjectHandler<AMConfig>{store::RULE, &AMConfig::OnRule},
      zem::covedb::ObjectHandler<AMConfig>{store::RULE_SECTION, &AMConfig::OnSection},
      zem::covedb::ObjectHandler<AMConfig>{store::BARRIER, &AMConfig::OnBarrier},
  }};
};

AMConfig::AMConfig(std::shared_ptr<MuxPusher> pusher, std::shared_ptr<ConfigHealth> health)
    : pusher_(std::move(pusher)), health_(std::move(health)) {}
AMConfig::~AMConfig() = default;

void AMConfig::Start(std::shared_ptr<zem::covedb::CoveDbClientInterface> client) {
  store_ = std::move(client);
  if (!store_) return;
  errors_.SetStore(store_);
  const std::weak_ptr<AMConfig> weak = weak_from_this();
  store_->AddChannelStatusCallback([weak](bool up) {
    if (const auto self = weak.lock()) self->TakeChannel(up);
  });
  // Gives false when an earlier engine of the process has registered; its callbacks find nobody then.
  static_cast<void>(store_->RegisterMonitorCallback(
      kModuleId,
      [weak](const Update& update) {
        if (const auto self = weak.lock()) self->TakeUpdate(update);
      },
      [weak] {
        if (const auto self = weak.lock()) self->TakeBarrier();
      },
      zem::covedb::kDefaultVDb));
  const auto statements = zem::covedb::MonitorStatementsFor(
      {store::VM_GROUP_RELATION, store::CONTEXT_PROFILE, store::RULE, store::RULE_SECTION, store::BARRIER});
  if (!store_->ConfigureMonitor(statements, {}, kModuleId, zem::covedb::kDefaultVDb)) {
    ZLOG_CTX_ERROR(356, "AMConfig: Failed to configure Ouvi AM Config monitor in CoveDB");
    Fail(ConfigStatus::kAmNotMonitored, "");
    return;
  }
  ZLOG_INFO("AMConfig: Successsfully configured Ouvi  AM config monitor in CoveDB");
}

// --- Changes of the store.

void AMConfig::TakeUpdate(const Update& update) {
  ZLOG_DEBUG("AMConfig: Received Covedb Monitor callback for AMConfig");
  if (update.object().empty()) {
    ZLOG_INFO("AMConfig: Ignoring CoveDb callback for empty message");
    return;
  }
  try {
    if (!Dispatch::kDispatcher.Dispatch(*this, update)) {
      ZLOG_WARN("AMConfig: Objects of type %d are not for the Mux", static_cast<int>(update.object_type()));
    }
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(351, "AMConfig: Unhandled exception in processing AM config updates");
    ZLOG_WARN("AMConfig: %s", error.what());
    Fail(ConfigStatus::kAmFailed, "");
  }
}

void AMConfig::OnVmGroups(const Update& update) {
  const OldAndNew<store::VmGroupRelationMsg> relation(update);
  const std::string vm = relation.now ? relation.now->vm_id() : relation.old->vm_id();
  AmTables::Groups now;
  if (relation.now) now = GroupsOf(*relation.now);
  {
    std::lock_guard lock(mutex_);
    if (relation.now && !relation.old && !tables_.GroupsOf(vm).empty()) sent_again_ = true;
    const AmTables::Groups old = relation.old ? GroupsOf(*relation.old) : tables_.GroupsOf(vm);
    for (const std::string& group : now) {
      ZLOG_DEBUG("AMConfig : New Group ID:  %s, VM UUID %s", group.c_str(), vm.c_str());
    }
    for (const std::string& group : old) {
      ZLOG_DEBUG("AMConfig : Old Group ID:  %s, VM UUID %s", group.c_str(), vm.c_str());
      if (now.empty())
        ZLOG_DEBUG("AMConfig : Old VMGroup Group ID:  %s, VM UUID %s", group.c_str(), vm.c_str());
    }
    VmChanges changes;
    if (const auto rule = tables_.EffectiveRule(now)) {
      changes[vm] = {vm, kMuxUpdate, *rule};
    } else if (const auto last = tables_.EffectiveRule(old)) {
      changes[vm] = {vm, kMuxDelete, *last};
    }
    tables_.SetGroups(vm, now);
    Post(changes);
  }
  errors_.Clear(vm);
}

void AMConfig::OnContextProfile(const Update& update) {
  const OldAndNew<store::ContextProfileMsg> profile(update);
  const auto config = profile.now ? MpsConfigOf(*profile.now) : std::nullopt;
  std::lock_guard lock(mutex_);
  if (profile.old) {
    tables_.RemoveProfile(profile.old->id());
    ZLOG_DEBUG("AMConfig : removed context profile %s from tracking", profile.old->id().c_str());
  }
  if (!config) return;
  const std::string& id = profile.now->id();
  if (!profile.old && tables_.Profile(id) != nullptr) sent_again_ = true;
  const VmChanges changes = tables_.SetProfile(id, *config);
  ZLOG_DEBUG("AMConfig: Updated config for contextprofile Id : %s", id.c_str());
  for (const auto& [vm, change] : changes) {
    ZLOG_DEBUG("AMConfig: Updated config for groupId : %s, contextProfileId : %s",
               tables_.EffectiveGroupOf(vm).c_str(), id.c_str());
  }
  Post(changes);
}

void AMConfig::OnRule(const Update& update) {
  const OldAndNew<store::RuleMsg> rule(update);
  const bool was = rule.old && rule.old->type() == kIntrospectionRule;
  const bool is = rule.now && rule.now->type() == kIntrospectionRule;
  if (!was && !is) return;
  std::lock_guard lock(mutex_);
  Post(ReplaceRule(was ? &*rule.old : nullptr, is ? &*rule.now : nullptr));
}

// The lines of each profile and group, and the changes that the rule's going and coming make together.
VmChanges AMConfig::ReplaceRule(const store::RuleMsg* old, const store::RuleMsg* now) {
  const uint32_t id = now != nullptr ? now->id() : old->id();
  std::vector<RuleEntry> entries;
  AmTables::Groups groups;
  if (old != nullptr) {
    for (const std::string& profile : old->context_profile_id()) {
      if (old->applied_to().empty()) {
        ZLOG_DEBUG("AMConfig: No applied to field found in old rule with Mps profileId : %s",
                   profile.c_str());
      }
      for (const std::string& group : old->applied_to()) {
        ZLOG_DEBUG("AMConfig : old rule profile : %s was applied on group : %s", profile.c_str(),
                   group.c_str());
        ZLOG_DEBUG("AMConfig : Deletion of old rule was enforced for group : %s", group.c_str());
      }
    }
  }
  if (now != nullptr) {
    const std::string section = zem::UuidText(now->section_id());
    const uint64_t priority = tables_.SectionPriority(section).value_or(0);
    groups = {now->applied_to().begin(), now->applied_to().end()};
    for (const std::string& profile : now->context_profile_id()) {
      if (now->applied_to().empty()) {
        ZLOG_DEBUG("AMConfig: No applied to field found in new rule with profileId : %s", profile.c_str());
      }
      for (const std::string& group : now->applied_to()) {
        ZLOG_DEBUG("AMConfig : profile : %s is applied on group : %s", profile.c_str(), group.c_str());
        ZLOG_DEBUG("AMConfig : Addition of new rule was enforced for group : %s", group.c_str());
      }
      entries.push_back({id, profile, RuleActionName(now->action()), priority, now->order(), section});
    }
  }
  const VmChanges changes = tables_.ReplaceRule(id, entries, groups);
  if (old != nullptr) {
    for (const std::string& group : old->applied_to()) {
      ZLOG_DEBUG("AMConfig : Recomputed config for all VMs part of group : %s", group.c_str());
    }
  }
  return changes;
}

void AMConfig::OnSection(const Update& update) {
  const OldAndNew<store::RuleSectionMsg> section(update);
  const store::RuleSectionMsg& known = section.now ? *section.now : *section.old;
  if (known.type() != kIntrospectionSection) return;
  OnRuleSection(zem::UuidText(known.id()), known.priority(), !section.now);
}

void AMConfig::OnRuleSection(const std::string& section_id, uint64_t priority, bool deleted) {
  std::lock_guard lock(mutex_);
  if (deleted) {
    ZLOG_DEBUG("AMConfig : Rule section delete");
    tables_.RemoveSection(section_id);
    ZLOG_INFO("AMConfig : Rule section deleted : %s", section_id.c_str());
    return;
  }
  const auto known = tables_.SectionPriority(section_id);
  if (known == priority) return;
  if (known) {
    ZLOG_INFO("AMConfig : Rule section priority updated for priority :%s", section_id.c_str());
  } else {
    ZLOG_INFO("AMConfig : Rule section added : %s", section_id.c_str());
  }
  AmTables::Groups touched;
  const VmChanges changes = tables_.SetSection(section_id, priority, &touched);
  for (const std::string& group : touched) {
    ZLOG_DEBUG("AMConfig: Updated config for groupId : %s for section sectionId : %s update", group.c_str(),
               section_id.c_str());
  }
  Post(changes);
}

void AMConfig::OnBarrier(const Update& update) {
  store::BarrierMsg barrier;
  if (!barrier.ParseFromString(update.object())) throw CtxtException("a barrier cannot be parsed");
  ZLOG_DEBUG("AMConfig : Barrier number updated :%lu ", barrier.value());
  std::lock_guard lock(mutex_);
  barrier_ = barrier.value();
  if (!replaying_) PostBarrier();
}

// --- All that the store has.

void AMConfig::TakeChannel(bool up) {
  std::lock_guard lock(mutex_);
  if (up == channel_up_) return;
  channel_up_ = up;
  if (!up) return;
  if (!replaying_) KeepBefore();
  replaying_ = true;
  barrier_.reset();
  tables_ = {};
}

void AMConfig::TakeBarrier() {
  ZLOG_DEBUG("AMConfig: CoveDbBarrierCallback entered");
  {
    std::lock_guard lock(mutex_);
    const bool again = std::exchange(sent_again_, false);
    if (replaying_) {
      replaying_ = false;
      Post(Everything());
      ForgetBefore();
      PostBarrier();
      return;
    }
    if (!again) return;
  }
  // The stream of the store was opened anew within one connection, and what was deleted in the gap was not
  // told.
  AskForAll();
}

void AMConfig::KeepBefore() {
  before_ = tables_.All();
  tables_before_ = std::move(tables_);
}

void AMConfig::ForgetBefore() {
  before_.clear();
  tables_before_ = {};
}

// With the mutex: each VM's rule, and the end of those that had one and have none.
VmChanges AMConfig::Everything() const {
  VmChanges everything = tables_.All();
  for (const auto& [vm, change] : before_) {
    everything.try_emplace(vm, VmChange{vm, kMuxDelete, change.rule});
  }
  return everything;
}

void AMConfig::HandleMuxReconnect() {
  ZLOG_INFO("AMConfig : Handle mux reconnect called");
  if (!store_) return;
  {
    std::lock_guard lock(mutex_);
    if (!channel_up_) {
      ZLOG_INFO("AMConfig: CoveDb channel status is down");
      return;  // the store sends all it has when it is back
    }
  }
  AskForAll();
}

void AMConfig::AskForAll() {
  std::list<store::ObjectRequestMsg> requests;
  for (const auto type :
       {store::VM_GROUP_RELATION, store::RULE_SECTION, store::RULE, store::CONTEXT_PROFILE}) {
    requests.emplace_back().set_object_type(type);
  }
  const std::weak_ptr<AMConfig> weak = weak_from_this();
  const bool asked = store_->Get(
      requests,
      [weak](const std::list<store::TypedObjectMsg>& objects, const zem::rpc::Status& status) {
        if (const auto self = weak.lock()) self->TakeObjects(objects, status);
      },
      zem::covedb::kDefaultVDb);
  if (!asked) {
    ZLOG_CTX_ERROR(356, "AMConfig: Failed to get covedb objects CoveDB");
    Fail(ConfigStatus::kAmNotMonitored, "");
    return;
  }
  ZLOG_INFO("AMConfig: Successsfully called Ouvi CoveDb Getin CoveDB");
}

void AMConfig::TakeObjects(const std::list<store::TypedObjectMsg>& objects, const zem::rpc::Status& status) {
  ZLOG_INFO("AMConfig : CoveDb get call");
  ZLOG_INFO("AMConfig: CoveDbGetCallback called, #objects: %zu, rpc status: %d", objects.size(),
            static_cast<int>(status.code()));
  if (!status.ok()) {
    ZLOG_CTX_ERROR(355, "AMConfig: CoveDbGetCallback rpc status failure: %d",
                   static_cast<int>(status.code()));
    SendStatus(*health_, ConfigStatus::kAmFailed);
    // The store does not answer, but what it said last still holds.
    std::lock_guard lock(mutex_);
    Post(Everything());
    return;
  }
  try {
    Refill(objects);
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(351, "AMConfig: Unhandled exception in processing AM config updates");
    ZLOG_WARN("AMConfig: %s", error.what());
    Fail(ConfigStatus::kAmFailed, "");
  }
}

void AMConfig::Refill(const std::list<store::TypedObjectMsg>& objects) {
  std::lock_guard lock(mutex_);
  // The handlers are for single changes, so the objects go through them as if the store had just sent them.
  if (!replaying_) KeepBefore();
  tables_ = {};
  AmTables& tables = tables_;
  for (const store::TypedObjectMsg& object : objects) {
    store::MonitorUpdateMsg update;
    store::ObjectOpMsg operation;
    operation.set_operation(store::ObjectOpMsg::SET);
    update.set_operation(operation.SerializeAsString());
    update.set_object(object.object());
    switch (object.object_type()) {
      case store::VM_GROUP_RELATION: {
        const auto relation = OldAndNew<store::VmGroupRelationMsg>(update).now;
        tables.SetGroups(relation->vm_id(), GroupsOf(*relation));
        break;
      }
      case store::CONTEXT_PROFILE: {
        const auto profile = OldAndNew<store::ContextProfileMsg>(update).now;
        if (const auto config = MpsConfigOf(*profile)) tables.SetProfile(profile->id(), *config);
        break;
      }
      case store::RULE: {
        const auto rule = OldAndNew<store::RuleMsg>(update).now;
        if (rule->type() == kIntrospectionRule) ReplaceRule(nullptr, &*rule);
        break;
      }
      case store::RULE_SECTION: {
        const auto section = OldAndNew<store::RuleSectionMsg>(update).now;
        AmTables::Groups touched;
        if (section->type() == kIntrospectionSection) {
          tables.SetSection(zem::UuidText(section->id()), section->priority(), &touched);
        }
        break;
      }
      default:
        break;
    }
  }
  const VmChanges everything = Everything();
  for (const auto& [vm, change] : everything) {
    const MpsConfig* const profile = tables.Profile(change.rule.profile_id);
    if (profile == nullptr) {
      ZLOG_INFO("AMConfig: Context Profile id : %s does not exist", change.rule.profile_id.c_str());
    } else {
      ZLOG_DEBUG("VM Id : %s, Tag added : %s, Action : %s", vm.c_str(), profile->vendor_template_key.c_str(),
                 change.rule.action.c_str());
    }
  }
  orlane::zem::ouvi::MuxConfigMsg config;
  AddVms(everything, &config);
  PostConfig(config);
  if (replaying_) return;
  ForgetBefore();
  // The queue may have been emptied with the write-back of a barrier in it.
  PostBarrier();
}

// --- To the multiplexer.

void AMConfig::AddVms(const VmChanges& changes, orlane::zem::ouvi::MuxConfigMsg* config) const {
  for (const auto& [vm_id, change] : changes) {
    const RuleEntry& rule = change.rule;
    ZLOG_DEBUG("AMConfig : Looking up for profile : %s", rule.profile_id.c_str());
    const MpsConfig* profile = tables_.Profile(rule.profile_id);
    // The profile may have gone together with its last rule.
    if (profile == nullptr && change.operation == kMuxDelete) {
      profile = tables_before_.Profile(rule.profile_id);
    }
    if (profile == nullptr) continue;
    auto* const vm = config->add_vm_info();
    vm->set_entity_uuid(vm_id);
    vm->set_operation(change.operation);
    auto* const solution = vm->add_solution();
    solution->set_id(profile->solution_id);
    solution->set_order(profile->solution_id);
    solution->set_tag(profile->vendor_template_key + "_" + rule.action);
    solution->set_action(rule.action);
    solution->set_rule_id(rule.rule_id);
    solution->set_file_categories(profile->file_categories);
    ZLOG_DEBUG(
        "AMConfig: added configuration for VM ID : %s, Context Profile ID : %s, action : %s, RuleId : %s",
        vm_id.c_str(), rule.profile_id.c_str(), rule.action.c_str(), std::to_string(rule.rule_id).c_str());
  }
}

void AMConfig::Post(const VmChanges& changes) {
  if (replaying_ || changes.empty()) return;
  if (ZLOG_WANTS(zem::kLogDebug)) {
    for (const auto& [vm, change] : changes) {
      const std::string group = tables_.EffectiveGroupOf(vm);
      if (group.empty()) {
        ZLOG_DEBUG("AMConfig: No group found for VM Id : %s", vm.c_str());
        continue;
      }
      ZLOG_DEBUG(
          "AMConfig: Affected VM on either change of rule/context profile :  %sbelonging to group id : %s",
          vm.c_str(), group.c_str());
      ZLOG_DEBUG("AMConfig: Recomputed config for groupId : %s", group.c_str());
    }
  }
  orlane::zem::ouvi::MuxConfigMsg config;
  AddVms(changes, &config);
  if (config.vm_info_size() > 0) PostConfig(config);
}

void AMConfig::PostConfig(const orlane::zem::ouvi::MuxConfigMsg& config) {
  const std::weak_ptr<AMConfig> weak = weak_from_this();
  pusher_->Post([weak, config = orlane::zem::ouvi::MuxConfigMsg(config)]() mutable {
    const auto self = weak.lock();
    if (!self) return;
    const std::string vm = config.vm_info_size() == 1 ? config.vm_info(0).entity_uuid() : "";
    try {
      self->PushToMux(&config);
    } catch (const CtxtProtobufError& error) {
      ZLOG_CTX_ERROR(152, "AMConfig: Error in serializing AM config protobuf message, error: %s",
                     error.what());
      self->Fail(ConfigStatus::kAmNotSerialized, vm);
    } catch (const std::exception& error) {
      ZLOG_CTX_ERROR(351, "AMConfig: Unhandled exception in processing AM config updates");
      ZLOG_WARN("AMConfig: %s", error.what());
      self->Fail(ConfigStatus::kAmFailed, vm);
    }
  });
}

uint32_t AMConfig::PushToMux(orlane::zem::ouvi::MuxConfigMsg* config) {
  config->set_source(kRuleSource);
  if (ZLOG_WANTS(zem::kLogDebug)) {
    ZLOG_DEBUG("Config data sent to mux is %s", config->ShortDebugString().c_str());
  }
  const uint32_t status = pusher_->Push(*config);
  if (status == kMuxSocketGone) ZLOG_WARN("AMConfig: Failed to push AMConfig to MUX");
  if (status == 0) {
    SendStatus(*health_, ConfigStatus::kAmDone);
    errors_.Clear(RealizationErrors::kRefused);
  } else {
    SendStatus(*health_, ConfigStatus::kAmRefused);
    errors_.Add(RealizationErrors::kRefused, ConfigStatusText(ConfigStatus::kAmRefused), "");
  }
  return status;
}

// With the mutex.  The write-back goes through the queue of the pushes, so that it follows those that the
// barrier is about.
void AMConfig::PostBarrier() {
  if (!barrier_) return;
  pusher_->Post([client = store_, value = *barrier_] {
    store::ProcessedBarrierMsg processed;
    processed.set_component(kIntrospectionComponent);
    processed.set_value(value);
    std::list<store::ModifyRequestMsg> requests(1);
    auto* const put = requests.back().add_modify_msg()->mutable_put_msg();
    put->set_object_type(store::PROCESSED_BARRIER);
    put->set_object(processed.SerializeAsString());
    put->set_size(kBarrierSize);
    client->Modify(std::move(requests), {});
  });
}

void AMConfig::Fail(ConfigStatus status, const std::string& entity) {
  SendStatus(*health_, status);
  errors_.Add(RealizationErrors::kProcessing, ConfigStatusText(status), entity);
}

}  // namespace Ctxt
