#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace zem::world {

class WorldNode;

/// Holds what the agent tells its operators (why, status, metrics) against what its peers have seen.
///
/// Threads: ConfigAnswered from any; the rest from the world's.
class WorldTruth {
 public:
  using Lines = std::vector<std::string>;

  /// `node` outlives it.
  explicit WorldTruth(WorldNode& node) : node_(node) {}

  /// The manager has got the agent's answer to a configuration.
  void ConfigAnswered(const std::string& id, const std::string& revision, int code);
  /// What is under way now may be given up.
  void AgentStops();

  /// Every answer since the last call that this one found right is explained as it was given, and nothing is
  /// under way that should have ended.
  Lines CheckWhy();
  /// Nothing is told to be at fault.
  Lines CheckStatus() const;
  /// Whether `part` is told to be at fault.
  bool IsAtFault(const std::string& part) const;
  /// What counts has not gone back.
  Lines CheckMetrics();

 private:
  Lines CheckVifAnswers();
  Lines CheckConfigAnswers();
  Lines CheckUnderWay() const;

  WorldNode& node_;
  size_t vif_answers_ = 0;  // those that were found right
  uint64_t given_up_ = 0;   // the last operation of an agent that has stopped
  std::map<std::string, double> counts_;
  std::mutex mutex_;                                                      // guards what follows
  std::map<std::pair<std::string, std::string>, std::set<int>> configs_;  // codes by id and revision
};

}  // namespace zem::world
