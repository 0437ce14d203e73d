#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "platform/core/clock.h"
#include "platform/rpc/call.h"
#include "platform/rpc/connection.h"
#include "proto/monitoring/monitoring_services.rpc.h"

namespace zem {
class AsioZemProvider;
namespace rpc {
class Server;
}
}  // namespace zem

namespace zem::sim {

/// An alarm client of the node, of either kind: one that serves the provider's requests itself, or one that
/// subscribes to them.  It keeps which of its events stand, reports each change, and answers from that state,
/// unless a fault says otherwise.
///
/// Threads: all operations from any thread but its own.
class AlarmClient {
 public:
  enum class Kind { kServing, kSubscribing };
  struct Options {
    Kind kind = Kind::kSubscribing;
    std::string source_id;
    uint32_t feature_id = 33;
    /// Ids that a serving client announces besides its own.
    std::vector<std::string> more_ids;
    /// A serving client that announces its id without the service.
    bool serves = true;
  };
  /// Connects, and connects again whenever the provider is there.
  explicit AlarmClient(Options options);
  ~AlarmClient();
  AlarmClient(const AlarmClient&) = delete;
  AlarmClient& operator=(const AlarmClient&) = delete;

  /// Event type and entity, a uuid's text.
  using Key = std::pair<uint32_t, std::string>;
  void Raise(const Key& key, const std::string& context);
  void Clear(const Key& key);

  /// How requests are answered.
  enum class Fault {
    kNone,
    kSilent,     // never
    kLate,       // after 5 s
    kDoubled,    // twice
    kUnknownId,  // a subscriber: under a correlation id that nobody has used
    kWrongType,  // a subscriber: with a type that does not exist
    kOtherKind,  // a subscriber: as if a full sync had been asked for
    kBare,       // a subscriber: with nothing but the correlation id
  };
  void SetFault(Fault fault);

  using Reported = std::function<void(const rpc::Status& status, bool result)>;
  /// Sends a report as it is.  Returns false when the client is not connected.
  bool Report(const orlane::zem::monitoring::MonitoringProcessEventReportRequestMsg& report,
              Reported reported);
  /// Ends the connection and makes a new one at once.
  void Reconnect();

  struct State {
    bool connected = false;
    /// A subscriber: the welcome was the first message of the subscription.
    bool welcomed = false;
    uint64_t connections = 0;
    uint64_t refused_subscriptions = 0;
    uint64_t full_syncs = 0;
    uint64_t syncs = 0;
    uint64_t refused_answers = 0;
    uint64_t refused_reports = 0;
    bool reporting = false;
    std::map<Key, std::string> raised;  // with their contexts
    std::vector<std::string> violations;
  };
  State state() const;

 private:
  class Service;
  struct Inner;

  const std::shared_ptr<Inner> inner_;
};

}  // namespace zem::sim
