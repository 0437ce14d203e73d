#include "app/ctxteng/introspection/partner_solutions.h"

#include "app/ctxteng/introspection/surroundings.h"
#include "framework/log/log.h"
#include "proto/context/mux_config.pb.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};
constexpr const char* kRowOfDashes = "--------------------------------------------------";

bool IsSystem(const std::string& solution_id) {
  return solution_id == "100" || solution_id == "6341068275337662464";
}

void Dump(const orlane::zem::ouvi::GiSolutionInfoMsg& info) {
  if (!ZLOG_WANTS(zem::kLogInfo)) return;
  ZLOG_INFO("%s", kRowOfDashes);
  ZLOG_INFO("OuviConfig: Mux Solution config message dump");
  const std::string node = info.has_transport_node_id() ? info.transport_node_id().ShortDebugString() : "";
  int number = 0;
  for (const auto& svm : info.gi_svm()) {
    ZLOG_INFO(" Solution Info %d -- sol id: %s, serviceInstance id: %s, transport node id: %s", ++number,
              svm.solution_id().c_str(), svm.service_instance_id().c_str(), node.c_str());
    for (const auto& connection : svm.connection_info()) {
      ZLOG_INFO("  Connection - type: %d, Ip: %u, Port: %u", static_cast<int>(connection.type()),
                connection.ip_address(), connection.port());
    }
    if (!svm.has_extended_solution_config()) continue;
    ZLOG_INFO(" ExtendedSolutionConfig has %d Key-Value pairs", svm.extended_solution_config().pair_size());
    for (const auto& pair : svm.extended_solution_config().pair()) {
      ZLOG_INFO("  Key: %s, value: %s", pair.key().c_str(), pair.value().c_str());
    }
  }
  ZLOG_INFO("%s", kRowOfDashes);
}

}  // namespace

void PartnerSolutions::Take(const orlane::zem::ouvi::GiSolutionInfoMsg& info, bool first) {
  Dump(info);
  Instances now;
  for (const auto& svm : info.gi_svm()) {
    if (IsSystem(svm.solution_id())) continue;
    now[svm.solution_id()] = svm.service_instance_id();
    SetServiceInstanceId(svm.solution_id(), svm.service_instance_id());
  }
  List over;
  {
    const Locks::ScopedLock lock(solutions_mutex_);
    if (!first) over = LeftOrChanged(now);
    for (const auto& [solution, instance] : over) svm_down_map_.erase(solution);
    solution_map_ = now;
  }
  {
    const Locks::ScopedLock lock(instances_mutex_);
    for (const auto& [solution, instance] : over) {
      if (now.count(solution) == 0) service_instance_map_.erase(solution);
    }
  }
  for (const auto& [solution, instance] : over) {
    ZLOG_INFO(
        "OuviConfig: SVM with SolnID: %s and ServiceInstanceId: %s has been un-deployed or re-deployed. "
        "Resetting all active alarms for this SVM",
        solution.c_str(), instance.c_str());
    alarm_->ResetAll(instance);
  }
}

PartnerSolutions::List PartnerSolutions::LeftOrChanged(const Instances& now) {
  List over;
  for (const auto& [solution, instance] : solution_map_) {
    const auto found = now.find(solution);
    if (found == now.end()) {
      ZLOG_INFO("OuviConfig: SolnID: %s is no longer present in the new solution config.", solution.c_str());
    } else if (found->second != instance) {
      ZLOG_INFO("OuviConfig: Service Instance ID for SolnID: %s has changed.", solution.c_str());
    } else {
      continue;
    }
    over.emplace_back(solution, instance);
  }
  return over;
}

void PartnerSolutions::MuxDisconnected() {
  List lost;
  {
    const Locks::ScopedLock lock(solutions_mutex_);
    for (const auto& [solution, instance] : solution_map_) {
      if (instance.empty()) {
        ZLOG_CTX_ERROR(
            353,
            "OuviConfig: ServiceInstanceId is empty, cannot raise alarm for MUX disconnected event "
            "for SolutionID: %s.",
            solution.c_str());
        continue;
      }
      lost.emplace_back(solution, instance);
    }
  }
  for (const auto& [solution, instance] : lost) {
    ZLOG_INFO(
        "OuviConfig: SVM with SolnID: %s and ServiceInstanceId: %s has been disconnected from MUX due to MUX "
        "failure.",
        solution.c_str(), instance.c_str());
    if (alarm_->Raise(instance)) {
      ZLOG_INFO(
          "OuviConfig: Successfully raised ENDPOINT_PROTECTION_PARTNER_CHANNEL_DOWN alarm for MUX disconnect "
          "event of solution: %s with ServiceInstanceId: %s",
          solution.c_str(), instance.c_str());
    } else {
      ZLOG_CTX_ERROR(172,
                     "OuviConfig: Failed to raise ENDPOINT_PROTECTION_PARTNER_CHANNEL_DOWN alarm for MUX "
                     "disconnect event "
                     "of solution: %s with ServiceInstanceId: %s",
                     solution.c_str(), instance.c_str());
    }
    ResetIfReplaced(solution, instance);
  }
}

void PartnerSolutions::MuxReconnected() {
  List back;
  {
    const Locks::ScopedLock lock(solutions_mutex_);
    for (const auto& [solution, instance] : solution_map_) {
      if (svm_down_map_.count(solution) != 0) {
        ZLOG_INFO(
            "OuviConfig: Not suppressing alarm for Solution: %s with ServiceInstanceId: %s on MUX re-connect "
            "as "
            "the SVM is down.",
            solution.c_str(), instance.c_str());
        continue;
      }
      if (instance.empty()) {
        ZLOG_CTX_ERROR(353,
                       "OuviConfig: ServiceInstanceId is empty, cannot raise alarm for MUX connected for "
                       "SolutionID: %s.",
                       solution.c_str());
        continue;
      }
      back.emplace_back(solution, instance);
    }
  }
  for (const auto& [solution, instance] : back) {
    if (alarm_->Reset(instance)) {
      ZLOG_INFO(
          "OuviConfig: Successfully reset previous ENDPOINT_PROTECTION_PARTNER_CHANNEL_DOWN alarm on MUX "
          "connect event for SolutionID: %s and ServiceInstanceId: %s",
          solution.c_str(), instance.c_str());
    } else {
      ZLOG_CTX_ERROR(171,
                     "OuviConfig: Failed to reset ENDPOINT_PROTECTION_PARTNER_CHANNEL_DOWN alarm on MUX "
                     "connect event for "
                     "SolutionID: %s and ServiceInstanceId: %s",
                     solution.c_str(), instance.c_str());
    }
  }
}

struct PartnerSolutions::SvmTexts {
  const char* begin;
  const char* system;
  const char* no_instance;
  bool (PartnerAlarm::*post)(const std::string& instance);
  const char* posted;
  int failure_tag;
  const char* failure;
};

constexpr PartnerSolutions::SvmTexts PartnerSolutions::kSvmDown = {
    "OuviConfig: Handle SVM to MUX disconnected",
    "OuviConfig: Won't raise alarm for SVM to MUX disconnected for SolutionID: %s",
    "OuviConfig: ServiceInstanceId is empty, cannot raise alarm for SVM to MUX disconnected for "
    "SolutionID: %s.",
    &PartnerAlarm::Raise,
    "OuviConfig: Successfully raised alarm for SVM to MUX disconnected for SolutionID: %s and "
    "ServiceInstanceId: %s",
    175,
    "OuviConfig: Failed to raise alarm for SVM to MUX disconnected for SolutionID: %s and "
    "ServiceInstanceId: %s"};
constexpr PartnerSolutions::SvmTexts PartnerSolutions::kSvmUp = {
    "OuviConfig: Handle SVM to MUX connected",
    "OuviConfig: Won't suppress any alarm for SVM to MUX connected for SolutionID: %s",
    "OuviConfig: ServiceInstanceId is empty, cannot suppress alarm for MUX to SVM connected for "
    "SolutionID : %s.",
    &PartnerAlarm::Reset,
    "OuviConfig: Successfully reset alarm for SVM to MUX disconnected for SolutionID: %s and "
    "ServiceInstanceId: %s",
    174,
    "OuviConfig: Failed to reset alarm for SVM to MUX disconnected for SolutionID: %s and "
    "ServiceInstanceId: %s"};

std::string PartnerSolutions::PostSvm(const SvmTexts& texts, const std::string& solution_id) {
  ZLOG_INFO("%s", texts.begin);
  if (IsSystem(solution_id)) {
    ZLOG_INFO(texts.system, solution_id.c_str());
    return {};
  }
  std::string instance = GetServiceInstanceId(solution_id);
  if (instance.empty()) {
    ZLOG_CTX_ERROR(353, texts.no_instance, solution_id.c_str());
    return {};
  }
  if ((*alarm_.*texts.post)(instance)) {
    ZLOG_INFO(texts.posted, solution_id.c_str(), instance.c_str());
  } else {
    ZLOG_CTX_ERROR(texts.failure_tag, texts.failure, solution_id.c_str(), instance.c_str());
  }
  return instance;
}

// A list that was taken between the look at the instance and the alarm has reset an alarm that was not there
// yet, and nobody would do it again.
bool PartnerSolutions::ResetIfReplaced(const std::string& solution_id, const std::string& instance) {
  if (GetServiceInstanceId(solution_id) == instance) return false;
  alarm_->ResetAll(instance);
  return true;
}

void PartnerSolutions::SvmDisconnected(const std::string& solution_id) {
  const std::string instance = PostSvm(kSvmDown, solution_id);
  if (instance.empty() || ResetIfReplaced(solution_id, instance)) return;
  const Locks::ScopedLock lock(solutions_mutex_);
  if (svm_down_map_.emplace(solution_id, instance).second) {
    ZLOG_INFO("OuviConfig: Successfully added solution: %s with serviceInstanceId: %s to SVM disconnect map",
              solution_id.c_str(), instance.c_str());
  }
}

void PartnerSolutions::SvmConnected(const std::string& solution_id) {
  const std::string instance = PostSvm(kSvmUp, solution_id);
  if (instance.empty()) return;
  const Locks::ScopedLock lock(solutions_mutex_);
  if (svm_down_map_.erase(solution_id) != 0) {
    ZLOG_INFO(
        "OuviConfig: Successfully removed solution: %s with serviceInstanceId: %s from SVM disconnect map as "
        "the SVM is now active",
        solution_id.c_str(), instance.c_str());
  }
}

void PartnerSolutions::SetServiceInstanceId(const std::string& solution_id, const std::string& id) {
  const Locks::ScopedLock lock(instances_mutex_);
  const auto [entry, added] = service_instance_map_.try_emplace(solution_id, id);
  if (added) {
    ZLOG_INFO("OuviConfig: Setting ServiceInstanceId: %s for SolnId: %s in internal map", id.c_str(),
              solution_id.c_str());
  } else if (entry->second != id) {
    ZLOG_INFO("OuviConfig: Replacing ServiceInstanceId: %s by %s for SolnId: %s in internal map ",
              entry->second.c_str(), id.c_str(), solution_id.c_str());
    entry->second = id;
  }
}

std::string PartnerSolutions::GetServiceInstanceId(const std::string& solution_id) {
  const Locks::ScopedLock lock(instances_mutex_);
  const auto found = service_instance_map_.find(solution_id);
  return found == service_instance_map_.end() ? std::string() : found->second;
}

}  // namespace Ctxt
