#include "platform/monitoring/instances.h"

#include <utility>

#include "proto/monitoring/monitoring_services.pb.h"

namespace zem::monitoring {
namespace {

constexpr size_t kMaxInstances = 65536;
constexpr size_t kMaxPerReport = 100;
// Below this number an instance that was cleared is kept: a sample of it every minute is then no news.
constexpr size_t kMaxKept = 4096;

}  // namespace

Instances::Instances(std::string source_id, uint16_t feature_id)
    : source_id_(std::move(source_id)), feature_id_(feature_id) {}

bool Instances::Set(const Key& key, bool raised, const std::string& context) {
  const auto known = instances_.find(key);
  if (known == instances_.end()) {
    if (instances_.size() >= kMaxInstances) return false;
    instances_.emplace(key, Instance{raised, context});
  } else if (known->second.raised == raised && known->second.context == context) {
    return true;  // a sample that changes nothing
  } else {
    known->second = {raised, context};
  }
  to_report_.insert(key);
  return true;
}

void Instances::Clear(const Key& key) {
  const auto known = instances_.find(key);
  if (known == instances_.end() || !known->second.raised) return;
  known->second.raised = false;
  to_report_.insert(key);
}

void Instances::MarkAll() {
  for (const auto& [key, instance] : instances_) {
    if (instance.raised) to_report_.insert(key);
  }
}

bool Instances::NextReport(orlane::zem::monitoring::MonitoringProcessEventReportRequestMsg* report) {
  if (to_report_.empty()) return false;
  auto* const feature = report->add_event_feature_report();
  feature->set_feature_id(feature_id_);
  feature->set_source_id(source_id_);
  orlane::zem::monitoring::MonitoringEventTypeStatusMsg* event_type = nullptr;
  while (!to_report_.empty() && reporting_.size() < kMaxPerReport) {
    const Key key = *to_report_.begin();
    to_report_.erase(to_report_.begin());
    reporting_.insert(key);
    if (event_type == nullptr || event_type->event_type_id() != key.event_type_id) {
      event_type = feature->add_event_type_status();
      event_type->set_event_type_id(key.event_type_id);
    }
    const Instance& instance = instances_.at(key);
    auto* const status = event_type->add_event_instance_status();
    status->mutable_entity_id()->set_first(key.entity_high);
    status->mutable_entity_id()->set_second(key.entity_low);
    status->set_status(instance.raised ? 1 : 0);
    status->set_context(instance.context);
  }
  return true;
}

void Instances::ReportFailed() { to_report_.merge(std::exchange(reporting_, {})); }

void Instances::ReportTaken() {
  // Entities come and go: of many, those that were cleared, and whose end is known, need not be kept.
  for (const Key& key : reporting_) {
    if (instances_.size() <= kMaxKept) break;
    const auto known = instances_.find(key);
    if (known != instances_.end() && !known->second.raised && to_report_.count(key) == 0) {
      instances_.erase(known);
    }
  }
  reporting_.clear();
}

void Instances::Answer(const orlane::zem::monitoring::MonitoringSyncRequestMsg& request,
                       orlane::zem::monitoring::MonitoringSyncResponseMsg* response) const {
  response->set_status(0);
  if (request.feature_id() != feature_id_) return;
  const auto known = instances_.find(Key{static_cast<uint16_t>(request.event_type_id()),
                                         request.entity_id().first(), request.entity_id().second()});
  if (known == instances_.end() || request.event_type_id() > UINT16_MAX) return;
  response->set_status(known->second.raised ? 1 : 0);
  response->set_context(known->second.context);
}

}  // namespace zem::monitoring
