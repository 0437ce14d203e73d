#pragma once

#include <boost/intrusive_ptr.hpp>
#include <boost/property_tree/ptree_fwd.hpp>
#include <memory>
#include <string>
#include <vector>

#include "framework/cli/cli_command.h"

namespace zem {
class AsioZemProvider;
namespace covedb {
class CoveDbClientInterface;
}
}  // namespace zem

namespace zem::Tarvik {

class LcpAdapter;

/// Stands in for verticals and store users on a node that is being brought up: it registers the verticals
/// that the options name, answers each request of the manager with the message that came, and logs what it
/// receives from the manager, the store's monitor and the dataplane agent.  The agent makes it only when the
/// options have a `probe` element:
///
///     <probe><verticals>SwitchingVertical,Traceflow</verticals><objectTypes>1,114</objectTypes></probe>
///
/// Threads: start and stop by the main thread.
class Probe {
 public:
  /// `store` and `lcp_adapter` may be null.
  Probe(AsioZemProvider& provider, std::shared_ptr<covedb::CoveDbClientInterface> store,
        boost::intrusive_ptr<LcpAdapter> lcp_adapter, const boost::property_tree::ptree& options);
  ~Probe();

  void Start();
  void Stop();

  /// "probe/send VERTICAL KIND TYPE HEX": sends a record of the given kind ("request" or "publish") to the
  /// manager.  "probe/lcp HEX": sends an LcpDpMsg to the dataplane agent.  "probe/put TYPE TEXT": puts an
  /// object into the store and logs when the store has taken it.  "probe/kafka...": see KafkaProbe.
  /// The object outlives the command server.
  std::vector<CliCommand> Commands();

 private:
  class Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace zem::Tarvik
