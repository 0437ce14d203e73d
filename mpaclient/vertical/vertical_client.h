#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "mpaclient/bus/bus_record.h"
#include "mpaclient/verticals.h"

namespace zem {

class AsioZemProvider;
class MpaClient;

/// A record of the manager as an application receives it.  The buffers belong to the manager client and live
/// until the callback returns.
struct VerticalRecord {
  const rmqClientMessage& raw;
  /// Without keys when the record has no header or a malformed one.
  BusHeader header;

  int32_t type() const { return raw.msg_type; }
  std::string_view payload() const {
    return {reinterpret_cast<const char*>(raw.payload), raw.payload == nullptr ? 0 : raw.payload_len};
  }
};

/// The manager client as the application of one vertical uses it: the registration with the constants of the
/// vertical's row, the distinction of the records that arrive, and the header and record of what is sent.
///
/// Threads: Register, Start and Stop one after the other; all other operations from any thread.  The
/// callbacks run on the thread that delivers the record, with no lock held; they hand the record's contents
/// over to a queue of the application and return.
class VerticalClient {
 public:
  /// What the application does with the manager's records.  Operations that are left empty do nothing.
  struct Callbacks {
    /// A message of the manager: request, response, publish or plain payload.
    std::function<void(const VerticalRecord& record)> payload;
    /// The manager serves the vertical from now on.  The version is the manager's, 0.0 while it is unknown.
    std::function<void(uint32_t major, uint32_t minor)> opened;
    /// The manager does not serve the vertical any more.
    std::function<void()> closed;
    /// Receives each record before all others; when it returns true, nothing else is done with the record.
    /// For an application that logs each record, or that does not distinguish the types of records.
    std::function<bool(const VerticalRecord& record)> intercept;
  };

  /// Why a message was not sent.
  enum class Sent {
    kSent,
    kNotConnected,  // the vertical is not registered, or the manager does not serve it
    kUnknownType,   // the row of the vertical does not have the type
    kNoRoad,        // the proxy has no stub: another proxy, or a later try, may do
    kRefused,       // the record itself is refused: it will never be sent
  };

  /// A message that is ready to be sent to any proxy, any number of times.
  struct Outgoing {
    BusRecord record;
    std::string type;
    /// Empty when the header of the vertical's messages has none.
    std::string message_id;
  };

  VerticalClient(AsioZemProvider& provider, const Vertical& vertical, Callbacks callbacks);
  /// Stops.
  ~VerticalClient();
  VerticalClient(const VerticalClient&) = delete;
  VerticalClient& operator=(const VerticalClient&) = delete;

  /// Registers the vertical with the manager client; nothing arrives before Start.  Throws what the manager
  /// client throws.  When the name is registered already, that registration stays and the records go to it.
  void Register();
  /// Registers the vertical unless Register has been called, and has the manager client connect it.
  void Start();
  /// Ends a registration that this object has made.  Waits for a callback that is running; no callback starts
  /// afterwards.  Not to be called from a callback.
  void Stop();

  /// Whether the manager client has a client of the vertical's name.
  bool registered() const { return client() != nullptr; }
  bool connected() const;
  /// The manager's proxies, and whether each is the master.
  std::map<std::string, bool> Aphs() const;

  /// Sends a message of a type of the vertical's row to the master.  `correlation_id` and `reply_to` may be
  /// empty.  Returns the message's id; nothing, after a log line with the reason, when it was not sent.
  [[nodiscard]] std::optional<std::string> Send(const std::string& type, std::string payload,
                                                const std::string& correlation_id,
                                                const std::string& reply_to);

  /// Prepares a message of a type of the vertical's row; nothing when the row does not have the type.
  std::optional<Outgoing> Prepare(const std::string& type, std::string payload,
                                  const std::string& correlation_id, const std::string& reply_to) const;
  /// Prepares a message of any type as a record of the given type.
  Outgoing PrepareAs(BusMessageType record, const std::string& type, std::string payload,
                     const std::string& correlation_id, const std::string& reply_to) const;
  /// Sends to the proxy `aph`, or to the master when it is empty.
  [[nodiscard]] Sent SendPrepared(const Outgoing& message, const std::string& aph = "") const;
  /// The number by which log lines tell how a message was sent: 0 for kSent.
  static int ResultOf(Sent result);
  /// Logs why a message of `type` was not sent.
  void LogNotSent(Sent reason, const std::string& type) const;

 private:
  class Receiver;

  std::shared_ptr<MpaClient> client() const;

  AsioZemProvider& provider_;
  const Vertical& vertical_;
  const std::shared_ptr<Receiver> receiver_;
  bool asked_ = false;  // Register has been called since the last Stop
  bool owns_registration_ = false;
};

}  // namespace zem
