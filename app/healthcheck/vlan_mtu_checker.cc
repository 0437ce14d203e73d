#include "app/healthcheck/vlan_mtu_checker.h"

#include <chrono>

#include "framework/log/log.h"
#include "platform/core/uuid.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"

namespace zem::Tarvik {
namespace {

using orlane::zem::healthcheck::HealthCheckReportMsg;
using orlane::zem::healthcheck::HealthCheckRequestMsg;
using orlane::zem::healthcheck::VlanMtuCheckResultEntryMsg;
using orlane::zem::healthcheck::VlanMtuRangeMsg;

constexpr LogSource kLog{"tarvik", "healthcheck"};

constexpr const char* kParam = "com.orlane.vswitch.vlanmtucheck.param";
constexpr const char* kDeploy = "com.orlane.vswitch.vlanmtucheck.deploy";
constexpr const char* kUplinkPorts = "com.orlane.common.host.uplinkPorts";
constexpr const char* kAlias = "com.orlane.common.port.alias";
constexpr const char* kMtuResult = "com.orlane.vswitch.port.volatile.mtuchkresult";
constexpr const char* kVlanResult = "com.orlane.vswitch.port.volatile.vlanchkresult";
constexpr uint32_t kParamFlags = 8;
constexpr uint32_t kDeployFlags = 16;
constexpr std::string_view kDeployValue("\x01\0\0\0\0", 5);

constexpr auto kCheckPeriod = std::chrono::seconds(1);
constexpr size_t kMostTests = 64;
constexpr int32_t kRead = 2;
constexpr int32_t kFailed = 3;

void AddRanges(const std::vector<VlanRange>& ranges,
               google::protobuf::RepeatedPtrField<VlanMtuRangeMsg>* list) {
  for (const VlanRange& range : ranges) {
    VlanMtuRangeMsg& message = *list->Add();
    message.set_first(range.first);
    message.set_last(range.last);
  }
}

}  // namespace

VlanMtuChecker::VlanMtuChecker(AsioZemProvider& provider, const HealthReports& reports, Post post,
                               std::string library)
    : HealthChecker(reports), provider_(provider), post_(std::move(post)), library_(std::move(library)) {}

bool VlanMtuChecker::Supports(const HealthCheckRequestMsg& request) const { return request.has_vlan_mtu(); }

bool VlanMtuChecker::Accepts(const HealthCheckRequestMsg& request) const { return request.has_vlan_mtu(); }

bool VlanMtuChecker::Init() {
  std::string error;
  if (!library_.Open(&error)) {
    ZLOG_ERROR("OPS04008", "Error in opening libklnPublic.so [%s]", error.c_str());
    return false;
  }
  check_timer_ = provider_.timers().ScheduleRepeated(
      kCheckPeriod,
      [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->PostCollection();
      },
      TimerOptions::Default);
  return true;
}

void VlanMtuChecker::Stop() {
  stopped_ = true;
  if (check_timer_) check_timer_->Cancel();
}

// --- The start of a test.

void VlanMtuChecker::Check(PendingResponse response) {
  const HealthCheckRequestMsg& request = response.request;
  if (!request.has_vlan_mtu()) return;
  const std::string& name = request.vlan_mtu().switch_name();
  const std::string dvs = SwitchIdFor(name);
  if (stopped_) return;
  ZLOG_INFO("Received VLAN-MTU check request for DVS %s", name.c_str());
  std::vector<VlanRange> ranges;
  for (const VlanMtuRangeMsg& range : request.vlan_mtu().range())
    ranges.push_back({range.first(), range.last()});
  const auto bitmap = MakeVlanBitmap(ranges);
  // Both are found before the test that may be running is touched.
  if (!bitmap || (tests_.size() >= kMostTests && !tests_.contains(name))) {
    ZLOG_WARN("VLAN-MTU check for DVS %s is refused: %s", name.c_str(),
              bitmap ? "too many switches are tested" : "a VLAN is beyond 4095");
    reports_.PublishStatus(response, HealthReports::kNotSet);
    return;
  }
  library_.ClearGlobal(dvs, kParam);
  library_.ClearGlobal(dvs, kDeploy);
  const std::string_view value(reinterpret_cast<const char*>(bitmap->data()), bitmap->size());
  if (!SetProperty(dvs, kParam, value, kParamFlags)) {
    reports_.PublishStatus(response, HealthReports::kNotSet);
    return;
  }
  ZLOG_INFO("Set VLAN range for VLAN/MTU check on KLN %s", dvs.c_str());
  if (!SetProperty(dvs, kDeploy, kDeployValue, kDeployFlags)) {
    reports_.PublishStatus(response, HealthReports::kNotSet);
    return;
  }
  ZLOG_INFO("Deployed VLAN/MTU check for KLN %s", dvs.c_str());
  tests_[name] = {Clock::Process().Now(), request.round_id(), request.test_time_s(), dvs};
}

std::string VlanMtuChecker::SwitchIdFor(const std::string& name) const {
  return library_.FindSwitchId(name).value_or(SwitchIdOfName(name));
}

bool VlanMtuChecker::SetProperty(const std::string& dvs, const char* property, std::string_view value,
                                 uint32_t flags) const {
  const uint32_t result = library_.SetGlobal(dvs, property, value, flags);
  if (result == 0) return true;
  ZLOG_ERROR("OPS04006", "Failed to set property %s for KLN %s, errno: %x", property, dvs.c_str(), result);
  return false;
}

// --- Its end.

void VlanMtuChecker::PostCollection() {
  // One that waits behind a slow library serves for all ticks.
  if (collection_posted_.exchange(true)) return;
  const bool posted = post_([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->CollectTests();
  });
  if (!posted) collection_posted_ = false;
}

void VlanMtuChecker::CollectTests() {
  collection_posted_ = false;
  const TimePoint now = Clock::Process().Now();
  for (auto entry = tests_.begin(); entry != tests_.end() && !stopped_;) {
    const Test& test = entry->second;
    const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(now - test.start);
    if (elapsed <= std::chrono::seconds(test.test_time_s)) {
      ++entry;
      continue;
    }
    ZLOG_INFO("Health check request round %s is COMPLETED", UuidText(test.round_id).c_str());
    Collect(entry->first, test);
    entry = tests_.erase(entry);
  }
}

void VlanMtuChecker::Collect(const std::string& name, const Test& test) const {
  const std::string& dvs = test.switch_id;
  std::string value;
  if (const uint32_t result = library_.HostValue(dvs, kUplinkPorts, &value); result != 0) {
    ZLOG_ERROR("OPS04002", "Failed to get uplink ports for KLN %s, errno: %x", dvs.c_str(), result);
    return;
  }
  const auto ports = ParseUplinkPorts(value);
  if (!ports) {
    ZLOG_ERROR("OPS04002", "Got incorrect uplink ports for KLN %s", dvs.c_str());
    return;
  }
  HealthCheckReportMsg report;
  *report.mutable_round_id() = test.round_id;
  auto& entries = *report.mutable_vlan_mtu_report();
  for (const std::string& port : *ports) {
    if (stopped_) return;
    *entries.add_entry() = ReadUplink(dvs, port);
  }
  if (reports_.Publish(report))
    ZLOG_INFO("Succeeded in sending VLAN-MTU check results for DVS %s", name.c_str());
  if (ClearProperties(dvs) != 0) ZLOG_WARN("Failed to remove health check instance from KLN %s", dvs.c_str());
  ZLOG_INFO("Cleaned up VLAN/MTU KLN properties for KLN %s", dvs.c_str());
}

VlanMtuCheckResultEntryMsg VlanMtuChecker::ReadUplink(const std::string& dvs, const std::string& port) const {
  VlanMtuCheckResultEntryMsg entry;
  entry.set_uplink_name(port);
  entry.set_result(kFailed);
  std::string alias;
  if (const uint32_t result = library_.PortValue(dvs, port, kAlias, &alias); result != 0) {
    ZLOG_ERROR("OPS04003", "Failed to get port alias for uplink %s, KLN %s, errno: %x", port.c_str(),
               dvs.c_str(), result);
    return entry;
  }
  entry.set_uplink_name(ParseAlias(alias));
  CheckResult mtu;
  CheckResult vlan;
  if (!ReadResult(dvs, port, kMtuResult, "MTU", &mtu) || !ReadResult(dvs, port, kVlanResult, "VLAN", &vlan))
    return entry;
  entry.set_result(kRead);
  AddRanges(mtu.first, entry.mutable_mtu_range());
  AddRanges(vlan.second, entry.mutable_vlan_range());
  return entry;
}

bool VlanMtuChecker::ReadResult(const std::string& dvs, const std::string& port, const char* property,
                                const char* what, CheckResult* result) const {
  std::string value;
  if (const uint32_t error = library_.PortValue(dvs, port, property, &value); error != 0) {
    ZLOG_ERROR("OPS04003", "Failed to get %s results for uplink %s, KLN %s, errno: %x", what, port.c_str(),
               dvs.c_str(), error);
    return false;
  }
  auto parsed = ParseCheckResult(value);
  if (!parsed) {
    ZLOG_ERROR("OPS04003", "Got incorrect %s results for uplink %s, KLN %s", what, port.c_str(), dvs.c_str());
    return false;
  }
  *result = std::move(*parsed);
  return true;
}

// One of the two that goes is enough: the switch then tests no more.
uint32_t VlanMtuChecker::ClearProperties(const std::string& dvs) const {
  const uint32_t param = library_.ClearGlobal(dvs, kParam);
  const uint32_t deploy = library_.ClearGlobal(dvs, kDeploy);
  if (param == 0 || deploy == 0) return 0;
  return param == DVS_NOT_FOUND || deploy == DVS_NOT_FOUND ? DVS_NOT_FOUND : DVS_FAILURE;
}

}  // namespace zem::Tarvik
