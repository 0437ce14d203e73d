#pragma once

#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace zem::sim {

class IdsLedger;
class Manager;
struct PeerMessage;

/// The manager's services behind "ZEM-IntrusionServices" and "ZEM-IdsPcapService": decode what hosts publish
/// and hand it to the ledger.
///
/// Threads: all operations from any thread.
class IdsServices {
 public:
  /// Both outlive the object.
  IdsServices(Manager& manager, IdsLedger& ledger);
  ~IdsServices();
  IdsServices(const IdsServices&) = delete;
  IdsServices& operator=(const IdsServices&) = delete;

  /// The newest entries of alerts, as JSON, newest first.
  std::vector<std::string> Newest(size_t most) const;

 private:
  void TakeEvents(const PeerMessage& message);
  void TakePcaps(const PeerMessage& message);

  Manager& manager_;
  IdsLedger& ledger_;
  mutable std::mutex mutex_;  // guards newest_
  std::deque<std::string> newest_;
};

}  // namespace zem::sim
