#pragma once

#include <list>
#include <memory>
#include <optional>
#include <string>

#include "proto/context/mux_config.pb.h"

namespace orlane::zem::covedb {
class MonitorUpdateMsg;
class TypedObjectMsg;
}  // namespace orlane::zem::covedb

namespace zem::rpc {
class Status;
}
namespace zem::covedb {
class CoveDbClientInterface;
}

namespace Ctxt {

class ConfigHealth;
class MuxPusher;
class PartnerSolutions;

/// Tells the multiplexer which security solutions the node has, the engine itself among them.
///
/// Threads: `Start` by the owner; the rest from any thread.
class SolutionConfig : public std::enable_shared_from_this<SolutionConfig> {
 public:
  SolutionConfig(std::shared_ptr<MuxPusher> pusher, std::shared_ptr<PartnerSolutions> solutions,
                 std::shared_ptr<ConfigHealth> health);

  /// Pushes the engine's own end point at once, and follows the solutions in the store; `store` may be null.
  void Start(std::shared_ptr<zem::covedb::CoveDbClientInterface> store);
  /// Pushes what the store has now.
  void HandleMuxReconnect();

 private:
  void TakeUpdate(const orlane::zem::covedb::MonitorUpdateMsg& update);
  void TakeObjects(const std::list<orlane::zem::covedb::TypedObjectMsg>& objects,
                   const zem::rpc::Status& status);
  void TakeObject(int type, const std::string& bytes);
  void Process(std::string bytes);
  void ProcessLast();

  const std::shared_ptr<MuxPusher> pusher_;
  const std::shared_ptr<PartnerSolutions> solutions_;
  const std::shared_ptr<ConfigHealth> health_;
  const orlane::zem::ouvi::GiSvmMsg own_;
  std::shared_ptr<zem::covedb::CoveDbClientInterface> store_;
  std::optional<std::string> last_;  // what the store said last; owned by the pusher's thread
};

}  // namespace Ctxt
