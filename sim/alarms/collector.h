#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace orlane::zem::monitoring {
class CollectorHostMsg;
class CollectorMpMsg;
class MonitoringEventReportMsg;
class MonitoringStatusReportMsg;
class MonitoringSyncRequestMsg;
}  // namespace orlane::zem::monitoring

namespace zem {
class AsioZemProvider;
}

namespace zem::sim {

class Manager;
struct HostAnswer;
struct PeerMessage;

/// The manager's collector of alarms behind the vertical "AlarmsProvider": keeps which events stand on the
/// node, which sources it has and how far its reports are numbered, and asks for what it lacks.
///
/// - A reset that it agrees to, and a gap in the numbers of the event reports, make it ask for a full sync
///   after a second: it then forgets the events that stand and takes them from the reports.
/// - A source sync makes it ask for each event of those sources that stands, at once and half a minute later:
///   one that does not any more is closed.
///
/// Threads: all operations from any thread but the manager's.
class Collector {
 public:
  /// `manager` has to outlive the collector.
  explicit Collector(Manager& manager);
  ~Collector();
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  /// How resets and source syncs are answered.
  enum class Answers { kTrue, kFalse, kNever, kGarbage, kNoType, kUnknownType };
  void SetAnswers(Answers answers);
  /// While it is off, the collector asks for nothing by itself.
  void SetFollowUps(bool on);

  /// The answer of the host as a message; nothing when there was none that parses.
  using Answered = std::function<void(const std::optional<orlane::zem::monitoring::CollectorMpMsg>&)>;
  /// Sends a message; returns an empty text, else why it was not sent.
  std::string Ask(const orlane::zem::monitoring::CollectorHostMsg& message, Answered answered);
  std::string AskFullSync(Answered answered);

  /// Feature, event type, entity and qubio id.
  using InstanceKey = std::tuple<uint32_t, uint32_t, std::string, std::string>;
  struct Instance {
    uint32_t status = 0;
    std::string source_id;
    std::string context;
    /// Grows with each report of the event.
    uint64_t version = 0;
  };
  /// A report of events or of status.
  struct Report {
    bool is_status = false;
    uint32_t sequence = 0;
    std::string correlation_id;
    /// Of events or of status members; 0 is a heartbeat.
    size_t members = 0;
    std::string text;
  };
  /// What a report said of an event, where it is something else than the last one said.
  struct Change {
    InstanceKey key;
    Instance instance;
  };
  struct State {
    uint64_t resets = 0;
    std::string node_id;
    std::string endpoint_id;
    std::set<std::string> sources;
    uint64_t source_syncs = 0;
    std::map<InstanceKey, Instance> open;
    uint32_t event_sequence = 0;
    uint32_t status_sequence = 0;
    uint64_t heartbeats = 0;
    uint64_t gaps = 0;
    uint64_t full_syncs = 0;
    uint64_t leadership_changes = 0;
    /// A full sync or a check of an event is due or under way.
    bool busy = false;
    std::deque<Report> reports;
    std::deque<Change> changes;
    std::vector<std::string> violations;
  };
  State state() const;

 private:
  std::optional<std::string> Take(const PeerMessage& message);
  std::optional<std::string> AnswerTo(const orlane::zem::monitoring::CollectorMpMsg& message,
                                      const std::string& correlation_id);
  void TakeEvents(const orlane::zem::monitoring::MonitoringEventReportMsg& report,
                  const std::string& correlation_id);
  void TakeStatus(const orlane::zem::monitoring::MonitoringStatusReportMsg& report,
                  const std::string& correlation_id);
  void JudgeEventSequence(uint32_t sequence);
  void CheckIds(const std::string& node_id, const std::string& endpoint_id);
  void Violation(const std::string& text);
  void Keep(Report report);
  void NoteChange(const InstanceKey& key, const Instance& instance);
  void FullSyncSoon();
  void CheckSources(const std::set<std::string>& sources);

  Manager& manager_;
  const std::unique_ptr<AsioZemProvider> provider_;

  mutable std::mutex mutex_;  // guards what follows
  State state_;
  Answers answers_ = Answers::kTrue;
  bool follow_ups_ = true;
  bool restart_expected_ = true;  // the next report may have any number, one of them after it number 1
  bool kept_allowed_ = true;      // one report of before the restart may come first
  bool status_may_fall_ = false;  // the host has started again since its last report of status
  std::string status_fall_;       // a number that fell, a fault unless the host's reset is still on its way
  bool full_sync_due_ = false;
  int checks_ = 0;                        // under way
  std::map<InstanceKey, Instance> said_;  // by the last report of each event
  uint64_t versions_ = 0;
};

}  // namespace zem::sim
