#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "mpaclient/bus/bus_record.h"
#include "mpaclient/call_handle_map.h"
#include "mpaclient/mpa_client.h"
#include "mpaclient/unified_layout.h"
#include "mpaclient/verticals.h"
#include "platform/rpc/client.h"

namespace google::protobuf {
class Message;
}

namespace zem {

class ServiceObserver;

/// Turns one vertical's records into the messages of the RPC road and back, and keeps its open calls.
///
/// What a vertical has of its own stands in its row of the vertical table; the classes derived from this one
/// override where a row says so. Threads: all operations from any thread; delivery to the vertical happens in
/// the caller's.
class MpaClientAppSpecific : public std::enable_shared_from_this<MpaClientAppSpecific> {
 public:
  using GenericUnifiedMsg = MpaClient::GenericUnifiedMsg;
  using VoidMsg = MpaClient::VoidMsg;
  using Message = google::protobuf::Message;

  MpaClientAppSpecific(const Vertical& vertical, std::shared_ptr<MpaClient> client);
  virtual ~MpaClientAppSpecific();

  /// 0 when the record is on its way.
  virtual int SendRequest(rmqClientMessage* record, const std::string& aph, MpaClient::SendFailure* why);
  /// 0 when the answer was written to its call, also to one that had ended: what could not be built, and what
  /// has no call and no other road, gives -1.  An answer without a call goes to `aph`, if it is not empty.
  virtual int RespondMsg(rmqClientMessage* record, const std::string& aph, MpaClient::SendFailure* why);
  /// Whether an answer that goes as a message of its own keeps its correlation id.
  virtual bool KeepAphForResponse() const { return true; }
  virtual bool UsesRoutingKeyAsAph(const rmqClientMessage& record) const;
  virtual std::unique_ptr<Message> GetMpUnifiedMsg(const std::string& type_name) const;
  virtual Message* GetMsgPayload(Message* unified, const std::string& type_name) const;
  /// Null when the record does not say what its answer needs.  `record` may be null for a handshake.
  virtual std::unique_ptr<ServiceObserver> GetRpcCallObserver(const rmqClientMessage* record,
                                                              uint32_t sequence);
  virtual std::unique_ptr<rpc::CallObserver<VoidMsg>> GetVoidMsgObserver();
  virtual bool NeedsAppInit() const { return vertical_.traits.needs_app_init; }
  virtual void HandleMpResponse(const rpc::Status& status, const GenericUnifiedMsg& answer,
                                ServiceObserver* observer);

  /// 0 when the call has started.
  int SendAppInitRequest(uint32_t sequence);
  bool FinishInitHandshake(uint32_t sequence, bool success);
  /// With `flag` 0 the manager's version goes along.
  void SendRegistrationAckToVertical(int flag);
  /// Nothing when the vertical has been told since its last ACK: one outage is one CLOSE.
  void SendCloseToVertical(int flag);
  /// The same, but nothing either when it has had no ACK.
  void SendCloseToServedVertical(int flag);
  void SendMsgToVertical(const BusRecord& record, int flag);

  /// The serialized answer to the manager's unasked app-init config; false when it cannot be serialized.
  bool BuildAppInitCfgAckMsg(GenericUnifiedMsg* answer, bool success) const;

  bool IsCorelationIdInCallHandleMap(const std::string& correlation_id) const;
  /// A number that tells this request from later ones with its id; nothing when the id has a running call.
  std::optional<uint64_t> AddToCallHandleMap(const std::string& correlation_id, CallHandleMap::Handle handle);
  /// The call of that request has ended, answered or not: its id is free again.
  void CallEnded(const std::string& correlation_id, uint64_t number);
  void AddToSeqToCallHandleMap(uint32_t sequence, const CallHandleMap::Handle& handle);
  CallHandleMap::Handle GetFromSeqToCallHandleMap(uint32_t sequence);
  void DeleteFromSeqToCallHandleMap(uint32_t sequence);
  void PurgeCallHandleMap();
  void PurgeStaleCallHandles();
  size_t open_calls() const { return calls_.size(); }

  void SetLastCallStatus(const rpc::Status& status);
  rpc::Status last_call_status() const;

  /// Held around the start of a call and around the note of its end, so that the end finds what the start has
  /// stored.
  std::mutex& call_mutex() { return call_mutex_; }

  const Vertical& vertical() const { return vertical_; }
  const UnifiedLayout& layout() const { return layout_; }
  const std::string& app_type() const { return app_type_; }

  /// Lets the client go that owns this object.
  void ReleaseClient();

 private:
  bool GetGenericUnifiedMsg(GenericUnifiedMsg* out, const rmqClientMessage& record,
                            const std::string* correlation_id, std::string* type_out) const;
  bool GetAppInitUnifiedMsg(GenericUnifiedMsg* out) const;
  bool BuildAppInitMsg(Message* message) const;
  int RespondAsMessage(const rmqClientMessage& record, const std::string& correlation_id,
                       const std::string& aph, MpaClient::SendFailure* why);
  bool PopulateObserver(ServiceObserver* observer, const rmqClientMessage& request) const;
  void SendStateToVertical(BusMessageType msg_type, int flag);
  std::shared_ptr<MpaClient> client() const;

  /// What the vertical was told last of its road to the manager.
  enum class Told { kNothing, kAck, kClose };

  const Vertical& vertical_;
  const UnifiedLayout& layout_;
  const std::string app_type_;

  mutable std::mutex client_mutex_;  // guards client_
  std::shared_ptr<MpaClient> client_;

  std::atomic<Told> told_{Told::kNothing};

  CallHandleMap calls_;

  std::mutex sequence_mutex_;  // guards the map
  std::unordered_map<uint32_t, CallHandleMap::Handle> sequences_;

  mutable std::mutex call_mutex_;  // guards last_call_status_ beside what it is told to
  rpc::Status last_call_status_;
};

/// The instance of a vertical.
std::shared_ptr<MpaClientAppSpecific> MakeAppSpecificInstance(const Vertical& vertical,
                                                              std::shared_ptr<MpaClient> client);

template <VerticalId kId>
class MpaClientOf final : public MpaClientAppSpecific {
 public:
  explicit MpaClientOf(std::shared_ptr<MpaClient> client)
      : MpaClientAppSpecific(GetVertical(kId), std::move(client)) {}
};

using MpaClientPktcap = MpaClientOf<VerticalId::kPacketCapture>;
using MpaClientTraceflow = MpaClientOf<VerticalId::kTraceflow>;
using MpaClientLldp = MpaClientOf<VerticalId::kLldp>;
using MpaClientSupportBundle = MpaClientOf<VerticalId::kSupportBundle>;
using MpaClientIda = MpaClientOf<VerticalId::kIda>;
using MpaClientControllerMgmt = MpaClientOf<VerticalId::kControllerMgmt>;
using MpaClientSwitching = MpaClientOf<VerticalId::kSwitching>;
using MpaClientCollector = MpaClientOf<VerticalId::kAlarmsProvider>;
using MpaClientLivetrace = MpaClientOf<VerticalId::kLivetrace>;
using MpaClientIpReputation = MpaClientOf<VerticalId::kIpReputation>;
using MpaClientIdfw = MpaClientOf<VerticalId::kIdfw>;
using MpaClientContextHealth = MpaClientOf<VerticalId::kContextHealth>;
using MpaClientIds = MpaClientOf<VerticalId::kIds>;
using MpaClientIdsPcap = MpaClientOf<VerticalId::kIdsPcap>;
using MpaClientHealthCheck = MpaClientOf<VerticalId::kHealthCheck>;

}  // namespace zem
