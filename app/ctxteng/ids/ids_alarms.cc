#include "app/ctxteng/ids/ids_alarms.h"

#include <utility>

#include "app/ctxteng/alarm/alarm_manager.h"
#include "app/ctxteng/alarm/alarm_registry.h"
#include "app/ctxteng/alarm/entity_id.h"
#include "app/ctxteng/alarm/idps_info.h"
#include "app/ctxteng/alarm/ids_alarm_reporter.h"
#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};
constexpr const char* kName = "IdpsHostAlarm";

}  // namespace

IdsAlarms::IdsAlarms(Conditions conditions) : conditions_(std::move(conditions)) {}

IdsAlarms::~IdsAlarms() { Stop(); }

void IdsAlarms::Start(const std::string& pcap_dir_path, const std::string& dpu_id) {
  reporter_ = std::make_unique<IdsPollAlarm::IdsAlarmReporter>(IdsPollAlarm::PollConditions{
      conditions_.enabled, conditions_.bypassed, conditions_.dropped, pcap_dir_path});
  reporter_->Initialize();
  auto info = std::make_shared<IdpsAlarm::IdpsInfo>(IdpsAlarm::IdpsConditions{
      conditions_.enabled, conditions_.has_rules, conditions_.transport_node, dpu_id});
  const auto manager =
      std::make_shared<AlarmMgr<IdpsAlarm::kFeature>>(kName, info->Events(), [info] { info->Interrupt(); });
  {
    const std::lock_guard lock(mutex_);
    info_ = std::move(info);
  }
  alarms::Register(IdpsAlarm::kFeature, manager);
  manager->Start();
  manager->AddEntity(std::string(kNodeEntity), 0);
}

void IdsAlarms::Stop() {
  reporter_.reset();
  std::shared_ptr<IdpsAlarm::IdpsInfo> info;
  {
    const std::lock_guard lock(mutex_);
    info.swap(info_);
    raised_by_.clear();
  }
  // Another owner's manager of the feature, in the same process, stays.
  if (!info) return;
  const auto manager = alarms::Find(IdpsAlarm::kFeature);
  alarms::Register(IdpsAlarm::kFeature, nullptr);
  if (manager) manager->Stop();
}

void IdsAlarms::ResetAll() {
  const std::lock_guard lock(mutex_);
  raised_by_.clear();
  alarms::ResetAllAlarms(IdpsAlarm::kFeature);
}

bool IdsAlarms::Raise(Client client, const std::string& brokers) {
  const std::lock_guard lock(mutex_);
  if (!info_ || !info_->Raise(brokers, true)) return false;
  raised_by_.insert(client);
  return true;
}

void IdsAlarms::Clear(Client client, const std::string& brokers) {
  const std::lock_guard lock(mutex_);
  raised_by_.erase(client);
  if (!info_) return;
  if (raised_by_.empty()) {
    static_cast<void>(info_->Raise(brokers, false));
  } else {
    ZLOG_INFO("Ids: The Kafka alarm stays for another client's brokers, without those of this one: %s",
              brokers.c_str());
  }
}

bool IdsAlarms::Stands(Client client) const {
  const std::lock_guard lock(mutex_);
  return raised_by_.count(client) != 0;
}

}  // namespace Ctxt
