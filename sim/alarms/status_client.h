#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace zem::sim {

/// The status source of the node: keeps a status for each of its features, reports changes, and everything
/// when the provider asks for it.
///
/// Threads: all operations from any thread but its own.
class StatusClient {
 public:
  /// Connects and registers, and does so again whenever the provider is there.
  StatusClient();
  ~StatusClient();
  StatusClient(const StatusClient&) = delete;
  StatusClient& operator=(const StatusClient&) = delete;

  /// Sets the status of a feature and reports it.
  void Set(const std::string& feature, const std::string& status);
  void SendHeartbeat();
  /// Whether full syncs succeed; an unanswered one is neither.
  enum class FullSyncs { kSucceed, kFail, kUnanswered };
  void SetFullSyncs(FullSyncs full_syncs);

  struct State {
    bool registered = false;
    uint64_t refused = 0;
    /// How often the provider has asked for everything, and has confirmed it.
    uint64_t full_syncs_asked = 0;
    uint64_t full_syncs_confirmed = 0;
    uint64_t configurations = 0;
    bool collection_enabled = false;
    std::map<std::string, uint32_t> table;
    std::map<std::string, std::string> statuses;
  };
  State state() const;

 private:
  struct Inner;

  const std::shared_ptr<Inner> inner_;
};

}  // namespace zem::sim
