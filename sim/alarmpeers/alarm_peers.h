#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sim/alarmpeers/peer_program.h"
#include "sim/control/json.h"

namespace zem::sim {

class DaemonProcess;

/// The processes of the node's alarm clients and of its status source.
///
/// Threads: all operations from any thread.
class AlarmPeers {
 public:
  /// `directory` is for the sockets and the output of the processes.
  explicit AlarmPeers(std::string directory);
  ~AlarmPeers();

  /// Starts a process, also again under an id whose process has ended.  Returns an empty text, else why not.
  std::string Start(PeerSettings settings);
  /// Returns false when no such process runs.
  bool Signal(const std::string& id, int signal);

  struct Peer {
    PeerSettings settings;
    bool running = false;
    /// Held by SIGSTOP: it answers nothing.
    bool stopped = false;
  };
  std::vector<Peer> All() const;

  /// Gives a command to a process and waits for its answer, a line of JSON.  Throws std::runtime_error when
  /// there is none.
  std::string Ask(const std::string& id, const std::string& command) const;
  /// The "state" of a process; null when it gives none.
  Json StateOf(const std::string& id) const;

 private:
  struct Entry {
    PeerSettings settings;
    std::unique_ptr<DaemonProcess> process;
    bool stopped = false;
  };

  const std::string directory_;
  mutable std::mutex mutex_;  // guards peers_
  std::map<std::string, Entry> peers_;
};

}  // namespace zem::sim
