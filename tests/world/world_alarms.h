#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "sim/alarms/alarm_client.h"
#include "sim/alarms/collector.h"
#include "sim/alarms/status_client.h"

namespace zem::world {

/// The node's alarm clients and the manager's collector in a random life.
///
/// Threads: the thread that made the node's clock.
class WorldAlarms {
 public:
  /// A random number below its argument.
  using Pick = std::function<uint64_t(uint64_t below)>;

  WorldAlarms(sim::Manager& manager, Pick pick);

  // What clients do of their own accord.
  void RaiseOrClear();
  void ReportStatus();
  // What befalls them.
  void ClientGoesOrComes();
  void ClientMisbehaves();
  void CollectorMisanswers();

  /// All clients run and behave, and so does the collector.
  void Calm();
  /// Where the collector differs from the clients.
  std::vector<std::string> Check() const;

 private:
  static constexpr size_t kClients = 4;

  void Start(size_t number);

  const Pick pick_;
  sim::Collector collector_;
  // Null: it does not run.  A client that comes again has forgotten what it had raised.
  std::array<std::unique_ptr<sim::AlarmClient>, kClients> clients_;
  std::unique_ptr<sim::StatusClient> status_;
};

}  // namespace zem::world
