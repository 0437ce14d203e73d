#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zem::sim {

/// The settings of one alarm peer's process.
struct PeerSettings {
  /// "serving", "subscribing" or "status".
  std::string kind;
  std::string id;
  uint32_t feature_id = 33;
  /// A serving client that announces its id without the service.
  bool without_service = false;
  /// Where it takes commands.
  std::string socket;

  std::vector<std::string> ToWords() const;
  /// Returns an empty text, else what is wrong with the words.
  static std::string FromWords(const std::vector<std::string>& words, PeerSettings* settings);
};

/// Runs an alarm client or the status source until it is killed.  Returns the process's exit code.
int RunAlarmPeer(const PeerSettings& settings);

}  // namespace zem::sim
