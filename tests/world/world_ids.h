#pragma once

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "app/ctxteng/idsevents/ids_counters.h"
#include "app/ctxteng/idsevents/ids_evt_engine.h"
#include "sim/ids/detection_process.h"
#include "sim/ids/ids_ledger.h"
#include "sim/ids/ids_services.h"
#include "sim/ids/log_collector.h"

namespace Ctxt {
class CtxtChannel;
class MpaChannel;
}  // namespace Ctxt
namespace zem {
class AsioZemProvider;
namespace sim {
class Manager;
}
}  // namespace zem

namespace zem::world {

/// Intrusion alerts in a random life: the detection process announces, the engine sends over the node's
/// channel, the manager's ledger judges, a logger and a Kafka come and go; and the count of all that.
///
/// Threads: the thread of the life.
class WorldIds {
 public:
  explicit WorldIds(sim::Manager& manager);
  ~WorldIds();

  void StartAgent(AsioZemProvider& provider);
  void StopAgent();

  /// Alerts, captures, and lines that are none.
  void Announce(std::mt19937_64& random);
  /// The logger goes, comes or stops reading; Kafka goes, comes or refuses.
  void Disturb(std::mt19937_64& random);
  void Calm();
  /// Announces one more alert, which has to arrive.  An alert that goes while the link comes up is lost, and
  /// counted; then another one follows.
  std::vector<std::string> Check();

 private:
  class Client;

  void Probe();
  void CheckCounters(std::vector<std::string>* lines) const;

  sim::IdsLedger ledger_;
  sim::DetectionProcess detection_;
  sim::LogCollector logger_;
  sim::IdsServices services_;
  const std::unique_ptr<Client> client_;
  std::unique_ptr<IdsEvtEng::IdsCounters> counters_;  // of the present run
  uint64_t announced_before_ = 0;                     // alerts that earlier runs took
  std::unique_ptr<Ctxt::MpaChannel> link_;
  std::unique_ptr<Ctxt::CtxtChannel> channel_;
  std::unique_ptr<IdsEvtEng::IdsEvtEngine> engine_;
  uint64_t flows_ = 0;
  uint32_t probes_ = 0;
  std::string probe_;  // how the manager shows the alert that has to arrive; empty: not announced yet
  int checks_ = 0;     // since it was announced
};

}  // namespace zem::world
