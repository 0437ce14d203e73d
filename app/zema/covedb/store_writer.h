#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "covedbclient/covedb_client_interface.h"
#include "mpaclient/bus/raw_bus_message.h"

namespace orlane::zem {
namespace covedb {
class RealizedHostConfigMsg;
}  // namespace covedb
namespace switching {
class HostConfigMsg;
}  // namespace switching
}  // namespace orlane::zem

namespace zem::zema {

class PendingLogicalSwitches;

/// Writes to the store what the node realized, and on an edge or gateway what the manager sent.
///
/// While the store is away, writes wait in the client.
///
/// Threads: all operations from any thread; no lock is held while the client is called.
class StoreWriter {
 public:
  struct Settings {
    std::shared_ptr<covedb::CoveDbClientInterface> client;
    /// See CoveDbHandler::Settings.
    std::function<void(const RawBusMessage& request)> maintenance_action;
    /// An object that has to live until a write is done; may be null.
    std::shared_ptr<void> keep_alive;
  };

  /// `pending`, whose switches are part of every realization error, has to outlive this object.
  StoreWriter(Settings settings, PendingLogicalSwitches& pending);

  /// Stores a message on an edge or gateway.  Returns 0, also for a message that is not stored; -1 on
  /// failure.
  [[nodiscard]] int SaveMessage(const RawBusMessage* message);

  /// Converts a host configuration to the store's form; returns null, with an error line, when that is not
  /// possible.  For a caller that changes the message before it knows whether the message will be stored.
  static std::unique_ptr<orlane::zem::covedb::RealizedHostConfigMsg> EncodeHostConfig(
      const orlane::zem::switching::HostConfigMsg& config);
  /// Stores the configuration with the bus header of its message.
  void SaveHostConfig(orlane::zem::covedb::RealizedHostConfigMsg stored, const std::string& header);

  void WriteProcessedBarrier(uint64_t barrier);
  /// Writes a status without errors, and the barrier unless it is 0, which means that there is none.
  void WriteRealized(uint64_t barrier);
  /// Writes an error for `uuids` and for everything that is pending; the barrier is treated as above.
  void WriteRealizationError(const std::string& text, const std::vector<std::string>& uuids,
                             uint64_t barrier);
  /// Writes the outcome of a full sync: a null `error` means success; `uuids` are written in their order.
  void WriteFullSyncResult(const std::string* error, const std::vector<std::string>& uuids, uint64_t barrier);

 private:
  void Modify(covedb::ModifyRequestMsg request);
  void Modify(std::list<covedb::ModifyRequestMsg> requests);

  const Settings settings_;
  PendingLogicalSwitches& pending_;
};

}  // namespace zem::zema
