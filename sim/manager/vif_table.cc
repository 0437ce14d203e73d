#include "sim/manager/vif_table.h"

#include <google/protobuf/text_format.h>

#include <algorithm>

#include "proto/switching/vif.pb.h"
#include "sim/control/invented_id.h"

namespace zem::sim {
namespace {

using orlane::zem::switching::VifAttachmentMsg;
using orlane::zem::switching::VifMsg;

constexpr uint32_t kRequest = 0;
constexpr uint32_t kResponse = 1;
constexpr uint32_t kAttach = 0;
constexpr uint32_t kDetach = 1;
constexpr uint32_t kRestore = 3;
// Number of recorded messages; older ones are dropped.
constexpr size_t kRemembered = 200000;

int64_t NowMicroseconds() {
  return std::chrono::duration_cast<std::chrono::microseconds>(Clock::Process().Now().time_since_epoch())
      .count();
}

VifRecord RecordOf(const VifAttachmentMsg& asked, uint32_t operation) {
  VifRecord record;
  record.at_us = NowMicroseconds();
  record.operation = operation;
  record.rpc_id = asked.operation_id();
  record.vif = asked.vif_id();
  record.ls = asked.logical_switch_id();
  record.port = asked.logical_port_id();
  record.host = asked.host_id();
  record.path = asked.gcf_path();
  record.state = asked.state();
  record.error = asked.error_text();
  for (const auto& pair : asked.site_config()) record.site_config[pair.key()] = pair.value();
  return record;
}

std::unique_ptr<VifMsg> MessageTo(const VifPlace& place, uint32_t operation) {
  auto message = std::make_unique<VifMsg>();
  message->set_type(kRequest);
  message->set_operation(operation);
  VifAttachmentMsg* const vif = message->add_vif_attachment();
  vif->set_vif_id(place.vif);
  vif->set_logical_switch_id(place.ls);
  vif->set_logical_port_id(place.port);
  vif->set_transport_zone_id(place.zone);
  vif->set_gcf_path(place.path);
  return message;
}

}  // namespace

VifTable::VifTable() = default;
VifTable::~VifTable() = default;

bool VifTable::serves() const {
  const std::lock_guard lock(mutex_);
  return !switches_.empty();
}

void VifTable::AddSwitch(const std::string& ls, const std::string& zone) {
  const std::lock_guard lock(mutex_);
  switches_[ls] = zone;
}

bool VifTable::RemoveSwitch(const std::string& ls) {
  const std::lock_guard lock(mutex_);
  return switches_.erase(ls) != 0;
}

VifTable::Answer VifTable::Ask(const VifMsg& request) {
  if (request.vif_attachment_size() == 0) return {};
  const VifAttachmentMsg& asked = request.vif_attachment(0);
  Answer answer;
  answer.message = std::make_unique<VifMsg>();
  answer.message->set_type(kResponse);
  answer.message->set_operation(request.operation());
  VifAttachmentMsg* const vif = answer.message->add_vif_attachment();
  vif->set_operation_id(asked.operation_id());
  VifRecord record = RecordOf(asked, request.operation());

  const std::lock_guard lock(mutex_);
  const bool changes = request.operation() == kAttach || request.operation() == kDetach;
  const VifRule rule =
      changes ? TakeRuleLocked(asked.vif_id(),
                               request.operation() == kAttach ? VifRule::Of::kAttach : VifRule::Of::kDetach)
              : VifRule();
  answer.delay = rule.delay;
  if (rule.kind == VifRule::Kind::kError) {
    vif->set_error_text(rule.text);
    record.answer = "error " + rule.text;
  } else if (rule.kind != VifRule::Kind::kSilent) {
    if (request.operation() == kAttach) {
      AttachLocked(asked, rule, vif, &record);
    } else if (request.operation() == kDetach) {
      DetachLocked(asked, rule, vif, &record);
    } else {
      TakeReportLocked(asked, request.operation());
    }
  }
  if (rule.kind == VifRule::Kind::kSilent || rule.kind == VifRule::Kind::kLost) {
    answer.message = nullptr;
    record.answer = "silence";
  }
  record.number = ++last_number_;
  records_.push_back(std::move(record));
  if (records_.size() > kRemembered) records_.pop_front();
  return answer;
}

void VifTable::AttachLocked(const Vif& asked, const VifRule& rule, Vif* answer, VifRecord* record) {
  const auto host_switch = switches_.find(asked.logical_switch_id());
  if (host_switch == switches_.end()) {
    answer->set_error_text("logical switch [" + asked.logical_switch_id() + "] is not found");
    record->answer = "error " + answer->error_text();
    return;
  }
  const std::string vif =
      asked.vif_id().empty() ? InventedUuidText("VIF in " + asked.logical_switch_id()) : asked.vif_id();
  VifPlace& place = places_[vif];
  if (!place.ls.empty() && place.ls != asked.logical_switch_id()) {
    answer->set_old_logical_switch_id(place.ls);
    answer->set_old_logical_port_id(place.port);
    answer->set_old_transport_zone_id(place.zone);
    record->answer = "old " + place.ls + "/" + place.port + " ";
  }
  if (!place.host.empty()) answer->set_old_host_id(place.host);
  place.vif = vif;
  place.ls = asked.logical_switch_id();
  place.port = PortLocked(vif, place.ls, asked.logical_port_id());
  place.zone = host_switch->second;
  place.host = asked.host_id();
  place.path = asked.gcf_path();
  answer->set_vif_id(vif);
  answer->set_logical_switch_id(place.ls);
  answer->set_transport_zone_id(place.zone);
  answer->set_gcf_path(place.path);
  if (rule.kind != VifRule::Kind::kEmptyPort) answer->set_logical_port_id(place.port);
  AddExtrasLocked(vif, answer);
  record->answer += "port " + answer->logical_port_id();
}

void VifTable::DetachLocked(const Vif& asked, const VifRule& rule, Vif* answer, VifRecord* record) {
  const auto found = places_.find(asked.vif_id());
  const bool here = found != places_.end() && found->second.ls == asked.logical_switch_id() &&
                    (found->second.host.empty() || found->second.host == asked.host_id());
  record->answer = "nothing";
  if (!here) return;
  const VifPlace place = found->second;
  const bool moved = !place.path.empty() && !asked.gcf_path().empty() && place.path != asked.gcf_path();
  const bool stays =
      rule.kind == VifRule::Kind::kPortAndPath || (moved && rule.kind == VifRule::Kind::kServe);
  if (!stays) places_.erase(found);
  if (rule.kind == VifRule::Kind::kNothing) return;
  answer->set_logical_switch_id(place.ls);
  answer->set_logical_port_id(place.port);
  answer->set_transport_zone_id(place.zone);
  record->answer = "port " + place.port;
  if (rule.kind == VifRule::Kind::kPort) return;
  if (stays) {
    answer->set_gcf_path(place.path);
    record->answer += " path " + place.path;
  } else {
    answer->set_vif_id(place.vif);
    record->answer += " vif";
  }
}

// Chooses the port that the VIF had there before, the one that the host names, or a new one.
const std::string& VifTable::PortLocked(const std::string& vif, const std::string& ls,
                                        const std::string& hint) {
  std::string& port = ports_[{vif, ls}];
  if (!hint.empty() && hint != port && owners_.try_emplace(hint, vif).first->second == vif) port = hint;
  if (port.empty()) port = InventedUuidText("port of " + vif + " in " + ls);
  owners_[port] = vif;
  return port;
}

void VifTable::TakeReportLocked(const Vif& asked, uint32_t operation) {
  const auto found = places_.find(asked.vif_id());
  if (found == places_.end()) return;
  if (operation == kRestore) {
    found->second.restored = asked.error_text().empty() ? asked.state() : asked.error_text();
    return;
  }
  for (const auto& pair : asked.site_config()) found->second.site_config[pair.key()] = pair.value();
}

void VifTable::AddExtrasLocked(const std::string& vif, Vif* answer) const {
  for (const std::string& name : {vif, std::string()}) {
    const auto found = extras_.find(name);
    if (found == extras_.end()) continue;
    answer->MergeFrom(*found->second);
    return;
  }
}

void VifTable::SetRule(const std::string& vif, VifRule rule) {
  const std::lock_guard lock(mutex_);
  rules_[vif] = std::move(rule);
}

void VifTable::ClearRules() {
  const std::lock_guard lock(mutex_);
  rules_.clear();
  extras_.clear();
}

VifRule VifTable::TakeRuleLocked(const std::string& vif, VifRule::Of of) {
  for (const std::string& name : {vif, std::string()}) {
    const auto found = rules_.find(name);
    if (found == rules_.end() || (found->second.of != VifRule::Of::kAny && found->second.of != of)) continue;
    VifRule rule = found->second;
    if (found->second.count > 0 && --found->second.count == 0) rules_.erase(found);
    return rule;
  }
  return {};
}

std::string VifTable::SetExtras(const std::string& vif, const std::string& text) {
  auto extras = std::make_unique<VifAttachmentMsg>();
  if (!google::protobuf::TextFormat::ParseFromString(text, extras.get()))
    return "no VifAttachmentMsg: " + text;
  const std::lock_guard lock(mutex_);
  if (text.empty()) {
    extras_.erase(vif);
  } else {
    extras_[vif] = std::move(extras);
  }
  return {};
}

VifPlace VifTable::Place(VifPlace place) {
  const std::lock_guard lock(mutex_);
  place.port = PortLocked(place.vif, place.ls, place.port);
  if (const auto found = switches_.find(place.ls); place.zone.empty() && found != switches_.end()) {
    place.zone = found->second;
  }
  return places_[place.vif] = std::move(place);
}

std::unique_ptr<VifMsg> VifTable::TakeOff(const std::string& vif) {
  const std::lock_guard lock(mutex_);
  const auto found = places_.find(vif);
  if (found == places_.end()) return nullptr;
  auto message = MessageTo(found->second, kDetach);
  places_.erase(found);
  return message;
}

std::unique_ptr<VifMsg> VifTable::AskRestore(const std::string& vif, const std::string& state) {
  const std::lock_guard lock(mutex_);
  const auto found = places_.find(vif);
  if (found == places_.end()) return nullptr;
  found->second.restored.clear();
  auto message = MessageTo(found->second, kRestore);
  VifAttachmentMsg* const asked = message->mutable_vif_attachment(0);
  asked->set_state(state);
  asked->set_operation_id("restore-" + std::to_string(++restores_));
  AddExtrasLocked(vif, asked);
  return message;
}

std::optional<VifPlace> VifTable::Find(const std::string& vif) const {
  const std::lock_guard lock(mutex_);
  const auto found = places_.find(vif);
  if (found == places_.end()) return std::nullopt;
  return found->second;
}

std::vector<VifPlace> VifTable::Places() const {
  const std::lock_guard lock(mutex_);
  std::vector<VifPlace> places;
  places.reserve(places_.size());
  for (const auto& [vif, place] : places_) places.push_back(place);
  return places;
}

std::map<std::string, std::string> VifTable::Switches() const {
  const std::lock_guard lock(mutex_);
  return switches_;
}

std::vector<VifRecord> VifTable::Records(const std::string& vif, uint64_t after) const {
  const std::lock_guard lock(mutex_);
  std::vector<VifRecord> matching;
  for (const VifRecord& record : records_) {
    if (record.number > after && (vif.empty() || record.vif == vif)) matching.push_back(record);
  }
  return matching;
}

}  // namespace zem::sim
