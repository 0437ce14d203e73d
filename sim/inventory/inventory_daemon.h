#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/core/clock.h"
#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"
#include "sim/inventory/host_inventory.h"

namespace zem::sim {

/// The host's inventory daemon on its socket: one client at a time, requests "ping", "FullSync" and
/// "Updates". What it has told last survives its own end.
///
/// Threads: all operations from any thread.
class InventoryDaemon {
 public:
  struct Faults {
    /// So many pings find the host unseen.
    int unseen = 0;
    /// So many replies break off in the middle, and the connection with them.
    int cut = 0;
    /// So many replies have bytes that are no text, unknown lines and a line of 3000 bytes.
    int noise = 0;
  };

  /// Looks at the host at this interval while a client waits for news.
  InventoryDaemon(HostInventory& host, std::string path, Duration look = std::chrono::milliseconds(50));
  ~InventoryDaemon();

  void Start();
  /// Ends as a process that is killed.
  void Stop();
  bool running() const;
  /// "Updates" without news is answered after so many milliseconds.
  void SetHold(int milliseconds) { hold_ms_ = milliseconds; }
  void SetFaults(const Faults& faults);
  /// Gets what was told last and what a full sync tells now, on the daemon's thread.  Set it before a client
  /// connects.
  using Observer = std::function<void(const InventoryFacts& before, const InventoryFacts& now)>;
  void SetObserver(Observer observer) { observer_ = std::move(observer); }
  /// The newest requests, oldest first.
  std::vector<std::string> Requests() const;

 private:
  using Lines = std::vector<std::string>;

  void Serve();
  void ServeClient(int client);
  bool Answer(int client, const std::string& request);
  bool Reply(int client, const Lines& lines);
  Lines FullSync(InventoryFacts* now);
  Lines Updates(InventoryFacts* now);

  HostInventory& host_;
  const std::string path_;
  const Duration look_;
  std::atomic<int> hold_ms_{1000};
  UniqueFd listener_;
  UniqueFd wake_;
  std::atomic<bool> stopping_{false};
  Observer observer_;
  mutable std::mutex mutex_;  // guards what follows
  Faults faults_;
  std::vector<std::string> requests_;
  InventoryFacts told_;
  std::unique_ptr<NativeThread> thread_;
};

}  // namespace zem::sim
