#pragma once

#include <boost/intrusive_ptr.hpp>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "platform/metrics/metrics.h"
#include "sim/dataplane/dataplane_agent.h"
#include "sim/dataplane/trace_agent.h"

namespace zem {
class AsioZemProvider;
class WorkGroup;
namespace Tarvik {
class HealthCheck;
class LcpAdapter;
class LivetraceApp;
class TraceflowApp;
}  // namespace Tarvik
namespace sim {
class Manager;
class VirtualMachines;
}  // namespace sim
}  // namespace zem

namespace zem::world {

/// Traceflow, live traces and the VLAN-MTU health check in a random life: the manager asks, the dataplane
/// agent is away, silent, late or confused, uploads fail.
///
/// Threads: the thread of the life.
class WorldTraces {
 public:
  WorldTraces(sim::Manager& manager, sim::VirtualMachines& machines);
  ~WorldTraces();

  void StartAgent(AsioZemProvider& provider);
  void StopAgent();

  void Ask(std::mt19937_64& random);
  void Disturb(std::mt19937_64& random);
  void Calm();
  /// One request of each kind is served whole, every call has ended once, and no session, no file and no test
  /// property is left.  The manager deletes the sessions whose end it has not heard of.
  std::vector<std::string> Check(const std::function<void(Duration)>& run);

 private:
  struct Call {
    std::string vertical;
    int ends = 0;
    /// Of the status that was answered; -1 for none.
    int status = -1;
  };

  size_t Send(const std::string& vertical, const std::string& member, const std::string& text, bool publish);
  size_t AskTraceflow(const std::string& port);
  size_t AskLivetrace(uint64_t id, const std::string& port, bool capture);
  size_t AskCheck(const std::string& name);
  int StatusOf(size_t call) const;
  std::string SomePort(std::mt19937_64& random);

  sim::Manager& manager_;
  sim::VirtualMachines& machines_;
  std::unique_ptr<sim::DataplaneAgent> dataplane_;
  std::unique_ptr<sim::TraceAgent> traces_;
  metrics::Registry metrics_;
  boost::intrusive_ptr<WorkGroup> group_;
  boost::intrusive_ptr<Tarvik::LcpAdapter> adapter_;
  std::shared_ptr<Tarvik::TraceflowApp> traceflow_;
  std::shared_ptr<Tarvik::LivetraceApp> livetrace_;
  std::shared_ptr<Tarvik::HealthCheck> check_;
  uint64_t last_id_ = 0;

  mutable std::mutex mutex_;  // guards calls_
  std::map<size_t, Call> calls_;
  size_t last_call_ = 0;
};

}  // namespace zem::world
