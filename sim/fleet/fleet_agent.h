#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "platform/provider/provider.h"

namespace zem {
class MpaClient;
class TnProxyClientCommon;
}  // namespace zem

namespace zem::fleet {

/// One host's agent, as the manager meets it: the daemon's own proxy client and one manager client for each
/// vertical of the daemon, without the applications above them.
///
/// Threads: Start and Stop from one thread, of all agents; the rest from any thread.
class FleetAgent {
 public:
  /// `provider` outlives the agent.
  FleetAgent(AsioZemProvider& provider, int host);
  ~FleetAgent();

  void Start();
  /// Ends as the daemon's orderly stop does.
  void Stop();

  bool running() const { return proxy_ != nullptr; }
  /// The manager serves every vertical.
  bool ready() const;
  /// Names of the verticals that the manager does not serve.
  std::vector<std::string> Waiting() const;

 private:
  AsioZemProvider& provider_;
  const int host_;
  // One for each vertical; the clients' callbacks may outlive the agent.
  std::shared_ptr<std::vector<std::atomic<bool>>> open_;
  std::shared_ptr<TnProxyClientCommon> proxy_;
  std::vector<std::shared_ptr<MpaClient>> clients_;
};

}  // namespace zem::fleet
