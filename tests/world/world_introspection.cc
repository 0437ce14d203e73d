#include "tests/world/world_introspection.h"

#include <map>
#include <optional>
#include <tuple>
#include <utility>

#include "app/ctxteng/introspection/ouvi_config.h"
#include "covedbclient/covedb_client_interface.h"
#include "platform/core/uuid.h"
#include "platform/upm/upm_service.h"
#include "proto/context/agent_config.pb.h"
#include "proto/covedb/firewall_objects.pb.h"
#include "proto/covedb/introspection_objects.pb.h"
#include "proto/covedb/profile_objects.pb.h"
#include "sim/store/store.h"

namespace zem::world {
namespace {

namespace proto = orlane::zem::covedb;
using Lines = std::vector<std::string>;
using Random = std::mt19937_64;

constexpr uint32_t kMuxSocketGone = 0x10005;
constexpr uint64_t kVms = 6;
constexpr uint64_t kGroups = 4;
constexpr uint64_t kRules = 8;
constexpr uint64_t kSections = 3;
constexpr uint64_t kProfiles = 3;
constexpr uint64_t kSolutions = 3;
constexpr uint32_t kRuleType = 6;
constexpr uint32_t kSectionType = 5;
constexpr uint32_t kDetect = 21;
constexpr uint32_t kDetectPrevent = 24;

std::string Id(const char* kind, uint64_t number) { return kind + std::to_string(number); }
std::string Uuid(uint64_t kind, uint64_t number) { return UuidText(UuidFromHalves(kind, number)); }
std::string Solution(uint64_t number) { return Id("solution-", number); }

void AddPut(proto::ModifyRequestMsg* request, proto::ObjectType type,
            const google::protobuf::MessageLite& object) {
  auto* const put = request->add_modify_msg()->mutable_put_msg();
  put->set_object_type(type);
  put->set_object(object.SerializeAsString());
}

void AddDelete(proto::ModifyRequestMsg* request, proto::ObjectType type,
               const google::protobuf::MessageLite& object) {
  auto* const change = request->add_modify_msg()->mutable_delete_msg();
  change->set_object_type(type);
  change->set_object(object.SerializeAsString());
}

void PutOrDelete(Random& random, proto::ModifyRequestMsg* request, proto::ObjectType type,
                 const google::protobuf::MessageLite& object) {
  if (random() % 4 == 0) {
    AddDelete(request, type, object);
  } else {
    AddPut(request, type, object);
  }
}

void ChangeSolutions(Random& random, proto::ModifyRequestMsg* request) {
  proto::GiSolutionInfoMsg info;
  // An object without a byte, as one without node and solutions would be, says nothing.
  info.mutable_transport_node_id()->set_first(1);
  for (uint64_t i = 0; i < kSolutions; ++i) {
    if (random() % 3 == 0) continue;
    auto* const svm = info.add_gi_svm();
    svm->set_solution_id(Solution(i));
    svm->set_service_instance_id(Id("instance-", random() % 2 * kSolutions + i));
  }
  AddPut(request, proto::GI_SOLUTION_INFO, info);
}

void ChangeGroups(Random& random, proto::ModifyRequestMsg* request) {
  proto::VmGroupRelationMsg relation;
  relation.set_vm_id(Uuid(1, random() % kVms));
  for (uint64_t i = 0; i < kGroups; ++i) {
    if (random() % 2 == 0) relation.add_group_id(Id("group-", i));
  }
  PutOrDelete(random, request, proto::VM_GROUP_RELATION, relation);
}

void ChangeRule(Random& random, proto::ModifyRequestMsg* request) {
  const uint64_t number = 1 + random() % kRules;
  proto::RuleMsg rule;
  rule.set_id(static_cast<uint32_t>(number));
  rule.set_type(random() % 6 == 0 ? 1 : kRuleType);
  rule.set_action(random() % 2 == 0 ? kDetect : kDetectPrevent);
  // No two rules of a section have the same order, so that there is one first rule.
  rule.set_order(random() % 5 * 100 + number);
  SetUuid(UuidFromHalves(2, random() % kSections), rule.mutable_section_id());
  rule.add_context_profile_id(Id("profile-", random() % kProfiles));
  for (uint64_t i = 0; i < kGroups; ++i) {
    if (random() % 3 == 0) rule.add_applied_to(Id("group-", i));
  }
  PutOrDelete(random, request, proto::RULE, rule);
}

// Sections and context profiles stay once they are there: what the multiplexer keeps of one that goes is not
// told.
void ChangeSection(Random& random, proto::ModifyRequestMsg* request) {
  proto::RuleSectionMsg section;
  SetUuid(UuidFromHalves(2, random() % kSections), section.mutable_id());
  section.set_type(kSectionType);
  section.set_priority(random() % 50);
  AddPut(request, proto::RULE_SECTION, section);
}

void ChangeContextProfile(Random& random, proto::ModifyRequestMsg* request, uint64_t number) {
  proto::ContextProfileMsg profile;
  profile.set_id(Id("profile-", number));
  auto* const attribute = profile.add_attribute();
  attribute->set_type("MPS");
  attribute->add_value(R"({"solution_config":{"service_id":"s","solution_id":")" + std::to_string(number) +
                       R"(","vendor_template_key":")" + Id("key-", random() % 4) +
                       R"("},"file_categories":"PE"})");
  AddPut(request, proto::CONTEXT_PROFILE, profile);
}

void ChangeGiProfile(Random& random, proto::ModifyRequestMsg* request, uint64_t number) {
  orlane::zem::context::GiServiceProfileMsg service;
  service.set_solution_id(Solution(number));
  proto::ProfileMsg profile;
  profile.set_id(Id("gi-", number));
  profile.set_type(upm::GI_SERVICE);
  profile.set_tag(Id("tag-", random() % 4));
  profile.set_payload(service.SerializeAsString());
  AddPut(request, proto::PROFILE, profile);
}

void ChangeBinding(Random& random, proto::ModifyRequestMsg* request) {
  proto::ProfileBindingMsg binding;
  binding.set_entity_id(Uuid(1, random() % kVms));
  binding.set_entity_type(upm::ENTITY_VM);
  binding.add_profile_id(Id("gi-", random() % kProfiles));
  PutOrDelete(random, request, proto::PROFILE_BINDING, binding);
}

template <class Message>
std::vector<Message> Objects(const sim::Store& store, proto::ObjectType type) {
  proto::GetRequestMsg request;
  proto::GetResponseMsg response;
  request.add_object_request()->set_object_type(type);
  std::vector<Message> objects;
  if (!store.Get(request, &response).ok()) return objects;
  for (const auto& object : response.object()) {
    Message& message = objects.emplace_back();
    if (!message.ParseFromString(object.object())) objects.pop_back();
  }
  return objects;
}

using ByVm = std::map<std::string, std::string>;

// The rule of each VM, found by looking at all of them.
ByVm WantedByRule(const sim::Store& store) {
  std::map<std::string, uint64_t> priorities;
  for (const auto& section : Objects<proto::RuleSectionMsg>(store, proto::RULE_SECTION)) {
    priorities[UuidText(section.id())] = section.priority();
  }
  std::map<std::string, std::string> keys;
  for (const auto& profile : Objects<proto::ContextProfileMsg>(store, proto::CONTEXT_PROFILE)) {
    const std::string& json = profile.attribute(0).value(0);
    const size_t at = json.find("key-");
    keys[profile.id()] = json.substr(at, json.find('"', at) - at);
  }
  const auto rules = Objects<proto::RuleMsg>(store, proto::RULE);
  ByVm wanted;
  for (const auto& relation : Objects<proto::VmGroupRelationMsg>(store, proto::VM_GROUP_RELATION)) {
    using Rank = std::tuple<uint64_t, std::string, uint64_t>;
    std::optional<std::pair<Rank, const proto::RuleMsg*>> best;
    for (const proto::RuleMsg& rule : rules) {
      bool applies = false;
      for (const std::string& group : rule.applied_to()) {
        for (const std::string& own : relation.group_id()) applies = applies || group == own;
      }
      if (!applies || rule.type() != kRuleType) continue;
      const std::string section = UuidText(rule.section_id());
      const Rank rank{priorities.count(section) != 0 ? priorities[section] : 0, section, rule.order()};
      if (!best || rank < best->first) best = {rank, &rule};
    }
    if (!best) continue;
    const std::string& profile = best->second->context_profile_id(0);
    const std::string solution = profile.substr(profile.find('-') + 1);
    const char* const action = best->second->action() == kDetect ? "RA_DETECT" : "RA_DETECT_PREVENT";
    wanted[relation.vm_id()] = solution + "/" + keys[profile] + "_" + action + "/" + solution;
  }
  return wanted;
}

ByVm WantedByProfile(const sim::Store& store) {
  std::map<std::string, std::string> profiles;
  for (const auto& profile : Objects<proto::ProfileMsg>(store, proto::PROFILE)) {
    const std::string solution = "solution-" + profile.id().substr(profile.id().find('-') + 1);
    profiles[profile.id()] = solution + "/" + profile.tag() + "/" + solution;
  }
  ByVm wanted;
  for (const auto& binding : Objects<proto::ProfileBindingMsg>(store, proto::PROFILE_BINDING)) {
    if (binding.entity_type() != upm::ENTITY_VM) continue;
    const auto profile = profiles.find(binding.profile_id(0));
    if (profile != profiles.end()) wanted[binding.entity_id()] = profile->second;
  }
  return wanted;
}

void Compare(const char* what, const ByVm& wanted, const ByVm& had, Lines* lines) {
  for (const auto& [vm, text] : wanted) {
    const auto found = had.find(vm);
    if (found == had.end()) {
      lines->push_back(std::string("the multiplexer lacks the ") + what + " of " + vm + ", " + text);
    } else if (found->second != text) {
      lines->push_back(std::string("the multiplexer has the ") + what + " " + found->second + " of " + vm +
                       " instead of " + text);
    }
  }
  for (const auto& [vm, text] : had) {
    if (wanted.count(vm) == 0) {
      lines->push_back(std::string("the multiplexer has a ") + what + " of " + vm + " without reason");
    }
  }
}

}  // namespace

bool WorldIntrospection::Alarm::Raise(const std::string& id) {
  const std::lock_guard lock(mutex_);
  raised_.insert(id);
  return true;
}

bool WorldIntrospection::Alarm::Reset(const std::string& id) {
  const std::lock_guard lock(mutex_);
  raised_.erase(id);
  return true;
}

void WorldIntrospection::Alarm::ResetAll(const std::string& id) { static_cast<void>(Reset(id)); }

void WorldIntrospection::Alarm::Shutdown() {
  const std::lock_guard lock(mutex_);
  raised_.clear();
}

std::set<std::string> WorldIntrospection::Alarm::raised() {
  const std::lock_guard lock(mutex_);
  return raised_;
}

WorldIntrospection::WorldIntrospection() = default;
WorldIntrospection::~WorldIntrospection() = default;

void WorldIntrospection::StartAgent(const std::shared_ptr<covedb::CoveDbClientInterface>& store) {
  profiles_ = std::make_shared<upm::UPMService>(store);
  profiles_->Start();
  ouvi_ = std::make_unique<Ctxt::OuviConfig>(mux_, alarm_, health_);
  ouvi_->Start(store, profiles_);
  if (mux_there_) ouvi_->HandleMuxConnected();
}

void WorldIntrospection::StopAgent() {
  ouvi_->Shutdown();
  profiles_->Stop();
  ouvi_.reset();
  profiles_.reset();
  // What the library configured lasts as long as its load, as the guests' masks do: the next agent could not
  // take back what was deleted while there was none.
  mux_->Forget();
}

void WorldIntrospection::ChangeObjects(Random& random, const Modify& modify) {
  proto::ModifyRequestMsg request;
  // A rule is never without its profile.
  if (!std::exchange(begun_, true)) {
    for (uint64_t i = 0; i < kProfiles; ++i) ChangeContextProfile(random, &request, i);
  }
  const uint64_t changes = 1 + random() % 5;
  for (uint64_t i = 0; i < changes; ++i) {
    switch (random() % 8) {
      case 0:
        ChangeSolutions(random, &request);
        break;
      case 1:
      case 2:
        ChangeGroups(random, &request);
        break;
      case 3:
      case 4:
        ChangeRule(random, &request);
        break;
      case 5:
        ChangeSection(random, &request);
        break;
      case 6:
        ChangeGiProfile(random, &request, random() % kProfiles);
        break;
      default:
        ChangeBinding(random, &request);
        break;
    }
    if (random() % 4 == 0) ChangeContextProfile(random, &request, random() % kProfiles);
  }
  modify(request);
}

void WorldIntrospection::SetMux(bool there) {
  if (std::exchange(mux_there_, there) == there) return;
  if (!there) mux_->Forget();
  mux_->status = there ? 0 : kMuxSocketGone;
  if (!ouvi_) return;
  if (there) {
    ouvi_->HandleMuxConnected();
  } else {
    ouvi_->HandleMuxDisconnected();
  }
}

void WorldIntrospection::SetServiceVm(const std::string& solution, bool there) {
  if (there ? away_.erase(solution) == 0 : !away_.insert(solution).second) return;
  if (!ouvi_ || !mux_there_) return;
  if (there) {
    ouvi_->HandleSvmConnected(solution);
  } else {
    ouvi_->HandleSvmDisconnected(solution);
  }
}

void WorldIntrospection::BounceMux(Random& random) { SetMux(random() % 2 == 0); }

void WorldIntrospection::MoveServiceVm(Random& random) {
  const std::string solution = Solution(random() % kSolutions);
  SetServiceVm(solution, away_.count(solution) != 0);
}

void WorldIntrospection::Calm() {
  SetMux(true);
  for (uint64_t i = 0; i < kSolutions; ++i) {
    away_.insert(
        Solution(i));  // so that each connects, whatever was told of it while the multiplexer was away
    SetServiceVm(Solution(i), true);
  }
}

Lines WorldIntrospection::Check(const sim::Store& store) {
  Lines lines;
  Compare("rule", WantedByRule(store), mux_->by_rule(), &lines);
  Compare("profile", WantedByProfile(store), mux_->by_profile(), &lines);
  std::string wanted = "100";
  for (const auto& info : Objects<proto::GiSolutionInfoMsg>(store, proto::GI_SOLUTION_INFO)) {
    for (const auto& svm : info.gi_svm()) wanted += " " + svm.solution_id() + "=" + svm.service_instance_id();
  }
  std::string had;
  const orlane::zem::ouvi::GiSolutionInfoMsg solutions = mux_->solutions();
  for (const auto& svm : solutions.gi_svm()) {
    had += had.empty() ? svm.solution_id() : " " + svm.solution_id() + "=" + svm.service_instance_id();
  }
  if (had != wanted) lines.push_back("the multiplexer has the solutions " + had + " instead of " + wanted);
  for (const std::string& instance : alarm_->raised()) {
    lines.push_back("the alarm of " + instance + " stands without reason");
  }
  return lines;
}

}  // namespace zem::world
