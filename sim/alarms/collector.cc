#include "sim/alarms/collector.h"

#include <chrono>
#include <utility>

#include "platform/core/uuid.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "proto/monitoring/monitoring.pb.h"
#include "proto/monitoring/monitoring_vertical.pb.h"
#include "sim/manager/manager.h"

namespace zem::sim {
namespace {

using orlane::zem::monitoring::CollectorHostMsg;
using orlane::zem::monitoring::CollectorHostUnifiedMsg;
using orlane::zem::monitoring::CollectorMpMsg;
using orlane::zem::monitoring::CollectorMpUnifiedMsg;
using orlane::zem::monitoring::MonitoringEventReportMsg;
using orlane::zem::monitoring::MonitoringStatusReportMsg;

constexpr const char* kVertical = "AlarmsProvider";
constexpr const char* kHostType = "com.orlane.zem.monitoring.CollectorHostMsg";
constexpr const char* kMpType = "com.orlane.zem.monitoring.CollectorMpMsg";
constexpr auto kFollowUpDelay = std::chrono::seconds(1);
constexpr auto kPatience = std::chrono::seconds(90);
constexpr size_t kReportsKept = 5000;
constexpr size_t kViolationsKept = 100;

// Longer than a host holds events back while it can send.
constexpr auto kSecondLook = std::chrono::seconds(30);

enum MpType : uint32_t {
  kReset = 1,
  kEventReport = 2,
  kFullSyncResponse = 3,
  kSyncResponse = 4,
  kSourceSync = 5,
  kStatusReport = 6,
  kLeadership = 8,
};
enum HostType : uint32_t {
  kFullSync = 1,
  kSync = 2,
  kResetAnswer = 3,
  kSourceSyncAnswer = 4,
  kLeadershipAnswer = 6,
  kNoSuchType = 7,
};

}  // namespace

Collector::Collector(Manager& manager) : manager_(manager), provider_(std::make_unique<AsioZemProvider>()) {
  provider_->RunAsync(1);
  manager_.SetPeer(kVertical, [this](const PeerMessage& message) { return Take(message); });
}

Collector::~Collector() {
  manager_.SetPeer(kVertical, {});
  provider_->StopAndWait(true);
}

void Collector::SetAnswers(Answers answers) {
  const std::lock_guard lock(mutex_);
  answers_ = answers;
}

void Collector::SetFollowUps(bool on) {
  const std::lock_guard lock(mutex_);
  follow_ups_ = on;
}

Collector::State Collector::state() const {
  const std::lock_guard lock(mutex_);
  State state = state_;
  state.busy = full_sync_due_ || checks_ > 0;
  if (!status_fall_.empty()) state.violations.push_back(status_fall_);
  return state;
}

void Collector::Violation(const std::string& text) {
  if (state_.violations.size() < kViolationsKept) state_.violations.push_back(text);
}

void Collector::Keep(Report report) {
  state_.reports.push_back(std::move(report));
  if (state_.reports.size() > kReportsKept) state_.reports.pop_front();
}

// --- What the host sends.

std::optional<std::string> Collector::Take(const PeerMessage& message) {
  CollectorMpUnifiedMsg unified;
  CollectorMpMsg inner;
  if (!unified.ParseFromString(message.payload) || unified.type() != kMpType ||
      !inner.ParseFromString(unified.raw_payload().payload())) {
    const std::lock_guard lock(mutex_);
    Violation("a message that does not parse, or has the wrong type: " + unified.type());
    return std::nullopt;
  }
  if (message.publish) {
    const std::lock_guard lock(mutex_);
    switch (inner.msg_type()) {
      case kEventReport:
        TakeEvents(inner.event_report(), message.correlation_id);
        break;
      case kStatusReport:
        TakeStatus(inner.status_report(), message.correlation_id);
        break;
      default:
        Violation("a publish of type " + std::to_string(inner.msg_type()));
    }
    return std::nullopt;
  }
  const auto answer = AnswerTo(inner, message.correlation_id);
  if (!answer) return std::nullopt;
  CollectorHostUnifiedMsg wrapped;
  wrapped.set_type(kHostType);
  wrapped.mutable_raw_payload()->set_payload(*answer);
  return wrapped.SerializeAsString();
}

std::optional<std::string> Collector::AnswerTo(const CollectorMpMsg& message,
                                               const std::string& correlation_id) {
  const std::lock_guard lock(mutex_);
  if (!ParseUuid(correlation_id)) Violation("a correlation id that is no uuid: " + correlation_id);
  CollectorHostMsg answer;
  bool agreed = answers_ == Answers::kTrue;
  switch (message.msg_type()) {
    case kReset:
      ++state_.resets;
      status_may_fall_ = std::exchange(status_fall_, "").empty();
      state_.node_id = UuidText(message.reset_request().node_id());
      state_.endpoint_id = UuidText(message.reset_request().endpoint_id());
      answer.set_msg_type(kResetAnswer);
      answer.mutable_reset_response()->set_result(agreed);
      if (agreed) {
        state_.sources.clear();
        restart_expected_ = kept_allowed_ = true;
        FullSyncSoon();
      }
      break;
    case kSourceSync: {
      ++state_.source_syncs;
      CheckIds(UuidText(message.source_sync_request().node_id()),
               UuidText(message.source_sync_request().endpoint_id()));
      answer.set_msg_type(kSourceSyncAnswer);
      answer.mutable_source_sync_response()->set_result(agreed);
      const std::set<std::string> named(message.source_sync_request().source_id().begin(),
                                        message.source_sync_request().source_id().end());
      if (agreed) {
        state_.sources.insert(named.begin(), named.end());
        CheckSources(named);
        // Events of an earlier life of a source may still wait in the host's queue.
        ++checks_;
        provider_->timers().Schedule(kSecondLook, [this, named] {
          const std::lock_guard again(mutex_);
          --checks_;
          CheckSources(named);
        });
      }
      break;
    }
    case kLeadership:
      ++state_.leadership_changes;
      answer.set_msg_type(kLeadershipAnswer);
      return answer.SerializeAsString();
    default:
      Violation("a request of type " + std::to_string(message.msg_type()));
      return std::nullopt;
  }
  switch (answers_) {
    case Answers::kNever:
      return std::nullopt;
    case Answers::kGarbage:
      return "\x0a\xff\xff\xff\xff garbage";
    case Answers::kNoType:
      answer.clear_msg_type();
      break;
    case Answers::kUnknownType:
      answer.set_msg_type(kNoSuchType);
      break;
    default:
      break;
  }
  return answer.SerializeAsString();
}

void Collector::CheckIds(const std::string& node_id, const std::string& endpoint_id) {
  if (state_.resets == 0) Violation("a message before the first reset");
  state_.node_id = node_id;
  state_.endpoint_id = endpoint_id;
}

void Collector::JudgeEventSequence(uint32_t sequence) {
  if (restart_expected_ && sequence == 1) {
    restart_expected_ = false;
  } else if (sequence == state_.event_sequence + 1) {
    // In order, or on its way before the restart.
    if (!restart_expected_) kept_allowed_ = false;
  } else if (restart_expected_ && kept_allowed_) {
    // It could not be sent before the restart: what it says of an event may have been over by then.
    kept_allowed_ = false;
    FullSyncSoon();
    return;
  } else if (kept_allowed_ && sequence == 1 && state_.event_sequence == 1) {
    // Then the one before was such a report, with the number of a first one, and this is the restart's.
    kept_allowed_ = false;
    FullSyncSoon();
  } else if (sequence > state_.event_sequence + 1) {
    ++state_.gaps;
    FullSyncSoon();
  } else {
    Violation("event report " + std::to_string(sequence) + " after " + std::to_string(state_.event_sequence));
  }
  state_.event_sequence = sequence;
}

void Collector::TakeEvents(const MonitoringEventReportMsg& report, const std::string& correlation_id) {
  JudgeEventSequence(report.sequence_number());
  CheckIds(UuidText(report.node_id()), UuidText(report.endpoint_id()));
  size_t events = 0;
  for (const auto& feature : report.feature_report()) {
    if (feature.source_id().empty()) Violation("a feature report without a source id");
    for (const auto& type : feature.event_type_status()) {
      for (const auto& instance : type.event_instance_status()) {
        ++events;
        InstanceKey key{feature.feature_id(), type.event_type_id(), UuidText(instance.entity_id()),
                        feature.qubio_id()};
        NoteChange(key, {instance.status(), feature.source_id(), instance.context(), 0});
        if (instance.status() == 0) {
          state_.open.erase(key);
        } else {
          state_.open[std::move(key)] = {instance.status(), feature.source_id(), instance.context(),
                                         ++versions_};
        }
      }
    }
  }
  if (events == 0) ++state_.heartbeats;
  Keep({false, report.sequence_number(), correlation_id, events, report.ShortDebugString()});
}

// A full sync repeats what is known, and how many events are in one report depends on the pace; what each of
// them went through does not.
void Collector::NoteChange(const InstanceKey& key, const Instance& instance) {
  Instance& before = said_[key];
  const bool same = before.status == instance.status && before.source_id == instance.source_id &&
                    before.context == instance.context;
  before = instance;
  if (same) return;
  state_.changes.push_back({key, instance});
  if (state_.changes.size() > kReportsKept) state_.changes.pop_front();
}

void Collector::TakeStatus(const MonitoringStatusReportMsg& report, const std::string& correlation_id) {
  const uint32_t sequence = report.sequence_number();
  // A host that starts again counts from 1 and does not wait for its reset, and its first reports may be lost
  // on their way: a number that falls belongs to the reset before it, or to one that comes.
  if (sequence <= state_.status_sequence && sequence != 1) {
    if (!std::exchange(status_may_fall_, false)) {
      if (!status_fall_.empty()) Violation(status_fall_);
      status_fall_ =
          "status report " + std::to_string(sequence) + " after " + std::to_string(state_.status_sequence);
    }
  } else if (sequence <= state_.status_sequence + 1) {
    status_may_fall_ = false;
  }
  state_.status_sequence = sequence;
  Keep({true, sequence, correlation_id, static_cast<size_t>(report.status_vertical_report_size()),
        report.ShortDebugString()});
}

// --- What the collector asks.

std::string Collector::Ask(const CollectorHostMsg& message, Answered answered) {
  orlane::zem::messaging::RawPayloadMsg raw;
  raw.set_payload(message.SerializeAsString());
  Manager::SendRequest request;
  request.vertical = kVertical;
  request.member = "raw_payload";
  request.text = raw.ShortDebugString();
  request.type = kHostType;
  request.timeout = kPatience;
  return manager_.Send(request, [answered = std::move(answered)](const HostAnswer& answer) {
    CollectorMpUnifiedMsg unified;
    CollectorMpMsg inner;
    if (answer.status.ok() && unified.ParseFromString(answer.message.payload()) &&
        inner.ParseFromString(unified.raw_payload().payload())) {
      answered(inner);
    } else {
      answered(std::nullopt);
    }
  });
}

std::string Collector::AskFullSync(Answered answered) {
  CollectorHostMsg message;
  message.set_msg_type(kFullSync);
  {
    const std::lock_guard lock(mutex_);
    ++state_.full_syncs;
    restart_expected_ = kept_allowed_ = true;
  }
  return Ask(message, [this, answered = std::move(answered)](const std::optional<CollectorMpMsg>& answer) {
    if (answer && answer->msg_type() == kFullSyncResponse && answer->full_sync_response().result()) {
      // Reports of before the full sync have arrived by now, and those that follow hold everything.
      const std::lock_guard lock(mutex_);
      state_.open.clear();
    }
    answered(answer);
  });
}

void Collector::FullSyncSoon() {
  if (!follow_ups_ || std::exchange(full_sync_due_, true)) return;
  provider_->timers().Schedule(kFollowUpDelay, [this] {
    const auto done = [this](const std::optional<CollectorMpMsg>& answer) {
      const std::lock_guard lock(mutex_);
      full_sync_due_ = false;
      if (!answer) FullSyncSoon();
    };
    if (!AskFullSync(done).empty()) done(std::nullopt);
  });
}

void Collector::CheckSources(const std::set<std::string>& sources) {
  if (!follow_ups_) return;
  for (const auto& [key, instance] : state_.open) {
    if (sources.count(instance.source_id) == 0) continue;
    CollectorHostMsg message;
    message.set_msg_type(kSync);
    auto* const sync = message.mutable_sync_request();
    sync->set_feature_id(std::get<0>(key));
    sync->set_event_type_id(std::get<1>(key));
    if (const auto entity = ParseUuid(std::get<2>(key))) SetUuid(*entity, sync->mutable_entity_id());
    sync->set_source_id(instance.source_id);
    ++checks_;
    provider_->timers().Schedule(kFollowUpDelay, [this, message, key = key, asked = instance.version] {
      const auto done = [this, key, asked](const std::optional<CollectorMpMsg>& answer) {
        const std::lock_guard lock(mutex_);
        --checks_;
        const auto found = state_.open.find(key);
        // A report that came after the question says more than the answer.
        if (found == state_.open.end() || found->second.version != asked) return;
        if (!answer || !answer->sync_response().has_status()) return FullSyncSoon();
        if (answer->sync_response().status() == 0) state_.open.erase(found);
      };
      if (!Ask(message, done).empty()) done(std::nullopt);
    });
  }
}

}  // namespace zem::sim
