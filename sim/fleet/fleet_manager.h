#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/provider/provider.h"
#include "sim/manager/proxy.h"

namespace zem::fleet {

/// What the manager has taken from all hosts since its start.
struct Load {
  uint64_t handshakes = 0;   // app-init requests
  uint64_t requests = 0;     // other requests
  uint64_t publishes = 0;    // messages without an answer
  uint64_t connections = 0;  // of hosts' proxies to an APH
  uint64_t bytes = 0;        // of the messages' contents
};

Load operator-(const Load& after, const Load& before);

/// A central manager with three APHs before a whole fabric: one proxy process for each host, connected to
/// every APH, as on real hosts.  It answers the handshake of every vertical and counts what arrives.
///
/// Threads: all operations from one thread.
class FleetManager {
 public:
  static constexpr int kAphs = 3;

  /// With one proxy for each host, which all list the APHs, the first as master.
  explicit FleetManager(int hosts);
  ~FleetManager();

  static std::string InfoEndpoint(int host);
  static std::string ForwardingEndpoint(int host);

  /// The manager goes: its connections end, the proxies go on listing its APHs.
  void Stop();
  void Start();
  bool running() const { return !aphs_.empty(); }

  /// Another APH becomes master.
  void MoveMaster();
  /// An APH that is not master is taken away and a new one takes its place.
  void ReplaceAph();

  Load load() const;

 private:
  class Aph;

  void Publish();

  const int hosts_;
  std::vector<std::string> ids_;
  size_t master_ = 0;
  int made_ = 0;
  std::atomic<uint64_t> handshakes_{0};
  std::atomic<uint64_t> requests_{0};
  std::atomic<uint64_t> publishes_{0};
  std::atomic<uint64_t> connections_{0};
  std::atomic<uint64_t> bytes_{0};
  std::vector<std::unique_ptr<sim::Proxy>> proxies_;
  std::vector<std::unique_ptr<Aph>> aphs_;
};

}  // namespace zem::fleet
