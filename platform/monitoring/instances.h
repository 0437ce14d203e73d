#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>

namespace orlane::zem::monitoring {
class MonitoringProcessEventReportRequestMsg;
class MonitoringSyncRequestMsg;
class MonitoringSyncResponseMsg;
}  // namespace orlane::zem::monitoring

namespace zem::monitoring {

/// The instances of a source's events, and which of them the provider still has to be told of.
///
/// Threads: none of its own; the owner guards it.
/// Limits: 65,536 instances.
class Instances {
 public:
  struct Key {
    uint16_t event_type_id = 0;
    uint64_t entity_high = 0;
    uint64_t entity_low = 0;
    auto operator<=>(const Key&) const = default;
  };

  Instances(std::string source_id, uint16_t feature_id);

  /// Returns false when there are too many instances.
  [[nodiscard]] bool Set(const Key& key, bool raised, const std::string& context);
  /// Clears an instance; nothing when it does not stand.
  void Clear(const Key& key);
  /// All instances that stand have to be reported again.
  void MarkAll();

  /// Fills in the next instances to report, at most 100.  Returns false when there is none.  They count as
  /// reported until `ReportFailed`.
  bool NextReport(orlane::zem::monitoring::MonitoringProcessEventReportRequestMsg* report);
  /// The last report was not taken: its instances are reported again.
  void ReportFailed();
  /// The last report was taken.
  void ReportTaken();

  void Answer(const orlane::zem::monitoring::MonitoringSyncRequestMsg& request,
              orlane::zem::monitoring::MonitoringSyncResponseMsg* response) const;

 private:
  struct Instance {
    bool raised = false;
    std::string context;
  };

  const std::string source_id_;
  const uint16_t feature_id_;
  std::map<Key, Instance> instances_;
  std::set<Key> to_report_;
  std::set<Key> reporting_;  // in the report that is under way
};

}  // namespace zem::monitoring
