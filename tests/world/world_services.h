#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <boost/intrusive_ptr.hpp>

#include "platform/core/clock.h"

namespace zem {
class AsioZemProvider;
class WorkGroup;
namespace Tarvik {
class IpReputationCommMgr;
class Lldp;
class SupportBundleClient;
}  // namespace Tarvik
namespace covedb {
class CoveDbClientInterface;
}
namespace sim {
class Manager;
class Store;
}  // namespace sim
}  // namespace zem

namespace zem::world {

class PlayedHostApi;

/// LLDP, support bundles and IP reputation in a random life.  The python process of the host's management API
/// is played, on the virtual clock; the scripts of bundles are real, and short.
///
/// Threads: the thread of the life.
class WorldServices {
 public:
  WorldServices(sim::Manager& manager, sim::Store& store);
  ~WorldServices();

  void StartAgent(AsioZemProvider& provider, std::shared_ptr<covedb::CoveDbClientInterface> client);
  void StopAgent();

  /// Asks for neighbours, for a bundle, for its status or its end; the count of IP reputation changes.
  void Ask(std::mt19937_64& random);
  /// The process dies, hangs, lies, does not start; a script of bundles fails.
  void Disturb(std::mt19937_64& random);
  void Calm();
  /// At rest a question has its answer, one process runs, a bundle is made and leaves nothing, and the last
  /// report has the last count.
  std::vector<std::string> Check();

 private:
  struct Call {
    int ends = 0;
    std::string question;
    std::string answer;  // empty: none
  };

  int Send(const std::string& vertical, const std::string& member, const std::string& text,
           const std::string& question);
  std::string AnswerOf(int call);
  void AskNeighbours();
  void PutCount(uint32_t count);
  void CheckNeighbours(std::vector<std::string>* lines);
  void CheckBundle(std::vector<std::string>* lines);
  void CheckReputation(std::vector<std::string>* lines);
  void CheckCalls(std::vector<std::string>* lines);

  sim::Manager& manager_;
  sim::Store& store_;
  boost::intrusive_ptr<WorkGroup> work_group_;
  boost::intrusive_ptr<PlayedHostApi> api_;
  std::unique_ptr<Tarvik::Lldp> lldp_;
  std::unique_ptr<Tarvik::SupportBundleClient> bundles_;
  std::unique_ptr<Tarvik::IpReputationCommMgr> reputation_;

  std::mutex mutex_;  // guards the three below, which the manager's and the process's threads write
  std::map<int, Call> calls_;
  std::vector<std::string> violations_;
  std::set<std::string> cut_;  // questions whose answer the process called shorter than it was

  int sent_ = 0;
  int bundle_ = 0;
  uint32_t count_ = 0;
  // Since the life is calm:
  TimePoint calm_since_;
  std::optional<int> question_;
  std::optional<int> generation_;
  std::optional<int> status_;
  std::optional<uint64_t> reports_before_;
};

}  // namespace zem::world
