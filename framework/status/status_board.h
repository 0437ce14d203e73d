#pragma once

#include <boost/intrusive_ptr.hpp>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "framework/cli/cli_command.h"
#include "framework/status/part_state.h"
#include "platform/core/clock.h"
#include "platform/core/condition.h"

namespace zem {
class WorkGroup;
}

namespace zem::Tarvik {

/// Knows which parts of the daemon do not do their work, and since when.
///
/// The sources look at their parts' real state, each time anew.  They are read on the work group, never by
/// who asks: a part that does not let itself be looked at is told as such, and delays nobody by more than
/// kPatience.
///
/// Threads: all operations from any thread.  Always held by a shared pointer.
class StatusBoard : public std::enable_shared_from_this<StatusBoard> {
 public:
  /// Appends the states of its parts; memory work only.
  using Source = std::function<void(std::vector<PartState>* parts)>;

  enum class Phase {
    kStarting,  // until the start's last step is done
    kServing,
    kStopping,  // for good
  };

  static constexpr Duration kPatience = std::chrono::milliseconds(30);

  explicit StatusBoard(boost::intrusive_ptr<WorkGroup> work_group);

  /// `name` is the part that is told of when the source does not return.
  void AddSource(std::string name, Source source);
  /// Forgets the sources, and waits for the reading that runs: what they look at may go.
  void Close();

  /// `step` is where the start stands.
  void SetPhase(Phase phase, const std::string& step = {});

  /// Begins a reading on the work group unless one runs; gives the times of faults that nobody asks for.
  void Refresh();

  struct Fault {
    PartState state;
    WallTime since;
    Duration age;
  };
  struct Report {
    Phase phase;
    Duration uptime;
    /// In the order of the sources; a start or stop in progress first.
    std::vector<Fault> faults;
    /// The parts without a fault.
    std::vector<std::string> well;
  };
  /// A reading that begins now, or the last one with a fault for what does not answer.
  Report Read();

 private:
  struct NamedSource {
    std::string name;
    Source source;
  };
  struct Since {
    TimePoint time;
    WallTime wall;
  };

  void ReadSources();
  void Take(std::vector<PartState> parts);
  void AddOwnParts(std::vector<PartState>* parts);
  Fault FaultOf(PartState state, TimePoint now) const;

  const boost::intrusive_ptr<WorkGroup> work_group_;
  const TimePoint started_;

  std::mutex mutex_;  // guards all below
  Condition changed_;
  std::vector<std::shared_ptr<const NamedSource>> sources_;
  bool closed_ = false;
  bool reading_ = false;
  uint64_t readings_ = 0;  // that are complete
  std::string reading_source_;
  Since reading_since_{};
  std::vector<PartState> parts_;
  std::map<std::string, Since> since_;  // of the parts with a fault
  Phase phase_ = Phase::kStarting;
  std::string step_;
  Since phase_since_{};

  struct QueueDrops {
    uint64_t dropped = 0;
    std::optional<TimePoint> last;
  };
  std::map<std::string, QueueDrops> queue_drops_;  // of the reading's thread only
};

/// "get/status": the board's report with the process's version and `node_id`, which may be empty.
CliCommand StatusCommand(std::shared_ptr<StatusBoard> board, std::string version,
                         std::function<std::string()> node_id);

}  // namespace zem::Tarvik
