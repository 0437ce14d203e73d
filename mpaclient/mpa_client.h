#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "mpaclient/bus/bus_connection.h"
#include "mpaclient/bus/bus_record.h"
#include "mpaclient/bus/rmq_client.h"
#include "platform/core/clock.h"
#include "platform/rpc/client.h"

namespace orlane::zem {
class VoidMsg;
namespace messaging {
class GenericUnifiedMsg;
}
}  // namespace orlane::zem

namespace zem {

class AsioZemProvider;
class TnProxyClientCommon;
namespace metrics {
class Counter;
class Frequency;
class Latency;
}  // namespace metrics

/// Receives the records of a vertical.  The record and its buffers are the client's and live until the
/// callback returns.
using MpaReceiveCallback = std::function<void(rmqClientMessage*)>;

/// What every manager client is made of.
struct MpaClientArguments {
  AsioZemProvider& provider;
  MpaReceiveCallback callback;
  std::string name;
  std::string id;
  uint32_t client_type;
  uint16_t port;
  std::chrono::microseconds ack_timeout;
  std::chrono::microseconds retry_timeout;
  boost::intrusive_ptr<RmqClientInterface> bus;
  /// Receives the records of the bus and finds their client.
  rmqClientCallback deliver;
};

/// The client of the manager for one vertical: sends its records and passes it the records that arrive.
///
/// This base works over the bus (port 6666) and holds what both roads share; MpaClientPrivate is the RPC
/// road.
///
/// Threads: `SendMessage` and the getters from any thread.  The receive callback runs on the forwarding
/// provider's thread with no lock held; it hands over to a queue of its own quickly.  Clients are always held
/// by shared pointers.
class MpaClient {
 public:
  using GenericUnifiedMsg = orlane::zem::messaging::GenericUnifiedMsg;
  using VoidMsg = orlane::zem::VoidMsg;
  using ReceiveCallback = MpaReceiveCallback;
  using UuidCallback = std::function<void(const std::string&)>;

  /// Why a record was not sent.
  enum class SendFailure {
    kNone,
    kNoRoad,   // the APH has no stub: another one, or a later try, may do
    kRefused,  // the record itself: it will never be sent
  };

  using ConnectionState = BusConnection::State;
  static constexpr ConnectionState kDisconnected = BusConnection::kDisconnected;
  static constexpr ConnectionState kConnected = BusConnection::kConnected;

  /// Port of the verticals that really use the bus.
  static constexpr uint16_t kBusPort = 6666;

  explicit MpaClient(MpaClientArguments arguments);
  virtual ~MpaClient();
  MpaClient(const MpaClient&) = delete;
  MpaClient& operator=(const MpaClient&) = delete;

  void Start(UuidCallback uuid_callback);
  void Stop();

  /// Returns 0 when the record was handed to its road.  The record and its buffers stay the caller's.
  virtual int SendMessage(rmqClientMessage* message);
  /// Sends one record to one APH ("" for the master, or whom the record names).  Returns -1 with the reason
  /// in `why`, which may be null.
  int SendMessageTo(rmqClientMessage* message, const std::string& aph, SendFailure* why);
  /// The APHs that the client knows, and whether each is the master.
  virtual std::map<std::string, bool> Aphs() const;
  virtual bool IsMasterStubMissing() { return false; }

  /// Both take the observer over: it ends with its call, or is deleted here when no call was started (-1).
  virtual int MsgHandler(const GenericUnifiedMsg& message, const std::string& aph,
                         rpc::CallObserver<VoidMsg>* observer);
  virtual int RpcMsgHandler(const GenericUnifiedMsg& message, const std::string& aph,
                            rpc::CallObserver<GenericUnifiedMsg>* observer, uint32_t sequence);

  /// Passes a record to the vertical and frees its `free_block`.
  void Deliver(rmqClientMessage* message);
  /// Logs that a record is dropped because nobody is registered for it any more.
  static void LogNoCallback(const std::string& app_type);

  /// Ends the app-init handshake of that number.  Returns true when the vertical is initialised by it.
  virtual bool CompleteAppInitHandshake(uint32_t sequence, bool success);
  virtual bool app_init_completed() const { return false; }

  bool IsConnected() const { return connection_->acknowledged(); }
  ConnectionState connection_state() const { return connection_->state(); }

  /// What the vertical has sent and received since the start of the process.
  struct Figures {
    uint64_t received = 0;
    uint64_t sent = 0;
    uint64_t send_failures = 0;
    /// Of the vertical's own callback, for 99 of 100 records and for the slowest.
    uint64_t callback_p99_us = 0;
    uint64_t callback_max_us = 0;
    /// How long the connection has been in its state.
    Duration state_age{};
  };
  Figures figures() const;
  const metrics::Latency& callback_time() const { return callback_time_; }
  int32_t cookie() const { return connection_->cookie(); }

 protected:
  friend class ClientRegistry;

  virtual void updateStubMap();
  virtual void AppInitHandshake();
  virtual void CreateAppSpecificInstance(const std::shared_ptr<MpaClient>& self);
  virtual void ReleaseAppSpecificInstance();
  virtual rpc::CallHandle<GenericUnifiedMsg> GetFromAppSpecificSeqToCallHandleMap(uint32_t sequence);
  virtual void RegisterWithTnProxyClient();
  /// `why` is set when the result is not 0.
  virtual int SendMsgViaTnProxy(rmqClientMessage* message, const std::string& aph, SendFailure* why);
  virtual void CleanUpForStubs();
  virtual void HandleClose();

  AsioZemProvider& provider_;
  const std::string app_type_;
  const std::string app_id_;
  UuidCallback uuid_callback_;
  const std::shared_ptr<TnProxyClientCommon> proxy_client_;
  const std::shared_ptr<BusConnection> connection_;

 private:
  void HandleMessage(rmqClientMessage* message);
  void LogRecord(const rmqClientMessage& message) const;
  /// Releases everything that the registration has made; no record reaches the vertical afterwards.
  void HandleUnregister();

  const uint16_t port_;
  const ReceiveCallback receive_callback_;
  metrics::Frequency& received_;
  metrics::Frequency& sent_;
  metrics::Counter& send_failures_;
  metrics::Latency& callback_time_;
  std::atomic<bool> registered_{true};
};

}  // namespace zem
