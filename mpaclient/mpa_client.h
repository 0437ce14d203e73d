#pragma once

#include <atomic>
#include <boost/intrusive_ptr.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "mpaclient/bus/bus_record.h"
#include "mpaclient/bus/rmq_client.h"
#include "platform/core/retry_policy.h"
#include "platform/rpc/client.h"

namespace orlane::zem {
class VoidMsg;
namespace messaging {
class GenericUnifiedMsg;
}
}  // namespace orlane::zem

namespace zem {

class AsioZemProvider;
class MpaClientAppSpecific;
class Timer;
class TnProxyClientCommon;
namespace metrics {
class Frequency;
}

/// The client of the manager for one vertical: sends its records, calls it back with what arrives.
///
/// This base works over the bus (port 6666) and carries what both roads share; MpaClientPrivate is the RPC
/// road.
///
/// Threads: `SendMessage` and the getters from any thread.  The receive callback runs on the forwarding
/// provider's thread with no lock held; it hands over to a queue of its own quickly.  Clients are always held
/// by shared pointers.
class MpaClient {
 public:
  using GenericUnifiedMsg = orlane::zem::messaging::GenericUnifiedMsg;
  using VoidMsg = orlane::zem::VoidMsg;
  /// The record and its buffers are the client's and live until the callback returns.
  using ReceiveCallback = std::function<void(rmqClientMessage*)>;
  using UuidCallback = std::function<void(const std::string&)>;

  /// Why a record was not sent.
  enum class SendFailure {
    kNone,
    kNoRoad,   // the APH has no stub: another one, or a later try, may do
    kRefused,  // the record itself: it will never be sent
  };

  enum ConnectionState : uint32_t { kDisconnected = 1, kConnected = 2 };

  /// Port of the verticals that really use the bus.
  static constexpr uint16_t kBusPort = 6666;

  /// Makes the client of vertical `name` and puts it into the process's registry.  Times in microseconds.
  /// Returns false, after an error line, when the name is registered already; its client stays.
  static bool Register(AsioZemProvider& provider, ReceiveCallback callback, const std::string& name,
                       const std::string& id, uint32_t client_type, uint16_t port, uint64_t ack_timeout_us,
                       uint64_t retry_timeout_us);
  /// Null when the vertical is not registered.
  static std::shared_ptr<MpaClient> Get(const std::string& name);
  static void Unregister(const std::string& name);
  /// Name and client of every registered vertical, in order of name.
  static std::vector<std::pair<std::string, std::shared_ptr<MpaClient>>> All();

  /// Delivers a record to the vertical that its `app_type` names and frees its `free_block`.
  static void Deliver(rmqClientMessage* message);

  /// What clients get instead of the bus library; null puts the library back.
  static void SetBusForTest(std::function<boost::intrusive_ptr<RmqClientInterface>()> make);

  MpaClient(AsioZemProvider& provider, ReceiveCallback callback, std::string name, std::string id,
            uint32_t client_type, uint16_t port);
  virtual ~MpaClient();
  MpaClient(const MpaClient&) = delete;
  MpaClient& operator=(const MpaClient&) = delete;

  /// 0 when the record was handed to its road.  The record and its buffers stay the caller's.
  virtual int SendMessage(rmqClientMessage* message);
  virtual bool IsMasterStubMissing() { return false; }
  virtual void updateStubMap();
  virtual void AppInitHandshake();
  virtual void CreateAppSpecificInstance(const std::shared_ptr<MpaClient>& self);
  virtual void ReleaseAppSpecificInstance();
  virtual rpc::CallHandle<GenericUnifiedMsg> GetFromAppSpecificSeqToCallHandleMap(uint32_t sequence);
  virtual void RegisterWithTnProxyClient();
  /// `aph` empty: the master, or whom the record names.  `why` is set when the result is not 0.
  virtual int SendMsgViaTnProxy(rmqClientMessage* message, const std::string& aph, SendFailure* why);
  /// Both take the observer over: it ends with its call, or is deleted here when no call was started (-1).
  virtual int MsgHandler(const GenericUnifiedMsg& message, const std::string& aph,
                         rpc::CallObserver<VoidMsg>* observer);
  virtual int RpcMsgHandler(const GenericUnifiedMsg& message, const std::string& aph,
                            rpc::CallObserver<GenericUnifiedMsg>* observer, uint32_t sequence);
  virtual void CreateBusClient();
  virtual void ReleaseBusClient();
  virtual void CleanUpForStubs();

  /// One record to one APH ("" for the master); -1 with the reason in `why`, which may be null.
  virtual int SendMessageTo(rmqClientMessage* message, const std::string& aph, SendFailure* why);
  /// The APHs that the client knows, and whether each is the master.
  virtual std::map<std::string, bool> Aphs() const;

  void Start(UuidCallback uuid_callback);
  void Stop();
  bool IsConnected() const;
  ConnectionState connection_state() const;
  int32_t cookie() const;
  const std::string& app_type() const { return app_type_; }
  const std::string& app_id() const { return app_id_; }

  // The app-init handshake.  A sequence is current when it is the last one taken.
  uint32_t GetNewAppInitSequenceNumber();
  bool CompleteAppInitHandshake(uint32_t sequence, bool success);
  bool app_init_completed() const;

 protected:
  friend class MpaClientAppSpecific;

  /// Logs when it is not.
  bool IsCurrent(uint32_t sequence) const;
  void RetryAppInitHandshakeLocked(uint32_t sequence);
  void WaitForAppInitHandshakeCompletion(uint32_t sequence);
  void HandleAppInitSuccess();
  void WaitTnProxyTimeout(uint32_t sequence);
  void WaitAppInitTimeout(uint32_t sequence);
  void CancelAppInitTimersLocked();
  void HandleClose();
  void SetConnectionState(ConnectionState state);

  // The handshake's part that runs with the app-init lock held; true when the registration ACK is due, to be
  // delivered after the lock.
  virtual bool AppInitHandshakeLocked() { return false; }
  virtual void SendRegistrationAck() {}
  virtual AsioZemProvider& timer_provider() { return provider_; }

  void HandleMessage(rmqClientMessage* message);
  bool HandleBusClose(const rmqClientMessage& message);

  AsioZemProvider& provider_;
  const std::string app_type_;
  const std::string app_id_;
  const uint32_t client_type_;
  const uint16_t port_;
  const ReceiveCallback receive_callback_;
  UuidCallback uuid_callback_;
  std::weak_ptr<MpaClient> self_;
  std::shared_ptr<TnProxyClientCommon> proxy_client_;
  metrics::Frequency& connections_;
  metrics::Frequency& received_;
  metrics::Frequency& sent_;

  mutable std::shared_mutex app_init_mutex_;  // guards what follows up to the sequence number
  bool app_init_completed_ = false;
  bool proxy_connected_ = false;
  std::shared_ptr<Timer> wait_tn_proxy_timer_;
  std::shared_ptr<Timer> app_init_timer_;
  uint32_t timer_sequence_ = 0;
  RetryPolicy app_init_retry_;

  std::atomic<uint32_t> app_init_seq_num_{0};

  mutable std::shared_mutex connection_mutex_;  // only taken alone; guards what follows
  boost::intrusive_ptr<RmqClientInterface> bus_client_;
  bool connected_ = false;
  ConnectionState connection_state_ = kDisconnected;
  int32_t cookie_ = -1;
  std::shared_ptr<Timer> reconnect_timer_;
  uint64_t bus_epoch_ = 0;  // raised by each start and end; attempts and timers of an older one are void

 private:
  boost::intrusive_ptr<RmqClientInterface> bus_client() const;
  /// Closes the connection.  Hands the bus client over when `released` is not null.
  void EndBusRoad(boost::intrusive_ptr<RmqClientInterface>* released);
  int SendOverBus(rmqClientMessage* message);
  void ConnectMpaStateTrans(uint64_t epoch);
  void ScheduleTimer(uint64_t microseconds, uint64_t epoch);

  std::mutex connect_mutex_;  // one attempt at the bus at a time
};

}  // namespace zem
