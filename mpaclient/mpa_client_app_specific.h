#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "mpaclient/bus/bus_record.h"
#include "mpaclient/calls/call_handle_map.h"
#include "mpaclient/calls/sequence_calls.h"
#include "mpaclient/calls/service_observer.h"
#include "mpaclient/mpa_client.h"
#include "mpaclient/unified_messages.h"
#include "mpaclient/verticals.h"
#include "platform/rpc/client.h"

namespace zem {

/// The RPC road of one vertical: turns its records into calls of the manager's service, the manager's answers
/// and the state of the road into records, and keeps the calls that are open in both directions.
///
/// Threads: all operations from any thread; the vertical's receive callback runs in the caller's.
class MpaClientAppSpecific : public AnswerHandler, public std::enable_shared_from_this<MpaClientAppSpecific> {
 public:
  using GenericUnifiedMsg = MpaClient::GenericUnifiedMsg;
  using VoidMsg = MpaClient::VoidMsg;

  MpaClientAppSpecific(const Vertical& vertical, std::shared_ptr<MpaClient> client);
  ~MpaClientAppSpecific() override;

  /// Returns 0 when the record is on its way.
  int SendRequest(rmqClientMessage* record, const std::string& aph, MpaClient::SendFailure* why);
  /// Returns 0 when the answer was written to its call, also when that call had ended.  Returns -1 when the
  /// answer cannot be built, and when it has neither a call nor another road.  An answer without a call goes
  /// to `aph` unless it is empty.
  int RespondMsg(rmqClientMessage* record, const std::string& aph, MpaClient::SendFailure* why);
  void HandleMpResponse(const rpc::Status& status, const GenericUnifiedMsg& answer,
                        ServiceObserver* observer) override;

  bool NeedsAppInit() const { return vertical_.traits.needs_app_init; }
  /// Returns 0 when the call has started.
  int SendAppInitRequest(uint32_t sequence);
  /// With `flag` 0 the record carries the manager's version.
  void SendRegistrationAckToVertical(int flag);
  /// Sends nothing when the last state sent was a CLOSE: one outage is one CLOSE.
  void SendCloseToVertical(int flag);
  /// Sends a CLOSE only if the last state sent was an ACK.
  void SendCloseToServedVertical(int flag);
  void SendMsgToVertical(const BusRecord& record, int flag);

  /// The manager's requests that wait for the vertical's answer.
  CallHandleMap& calls() { return calls_; }
  SequenceCalls& sequence_calls() { return sequence_calls_; }
  const UnifiedMessages& messages() const { return messages_; }
  const Vertical& vertical() const { return vertical_; }

  /// Releases the client, which owns this object.
  void ReleaseClient();

 private:
  /// Whether a record's routing key names the APH to send to.
  bool UsesRoutingKeyAsAph() const { return vertical_.traits.routing_key_as_aph; }
  /// Whether an answer that travels as a message of its own keeps its correlation id.
  static bool KeepAphForResponse() { return true; }
  /// Returns null when the record lacks what its answer needs.  `record` may be null for a handshake.
  std::unique_ptr<ServiceObserver> GetRpcCallObserver(const rmqClientMessage* record, uint32_t sequence);
  std::unique_ptr<rpc::CallObserver<VoidMsg>> GetVoidMsgObserver();
  void TakeMpResponse(const rpc::Status& status, const GenericUnifiedMsg& answer, ServiceObserver* observer);
  bool FinishInitHandshake(uint32_t sequence, bool success);
  int RespondAsMessage(const rmqClientMessage& record, const std::string& correlation_id,
                       const std::string& aph, MpaClient::SendFailure* why);
  bool PopulateObserver(ServiceObserver* observer, const rmqClientMessage& request) const;
  void SendStateToVertical(BusMessageType msg_type, int flag);
  std::shared_ptr<MpaClient> client() const;

  /// The state of the road that was last sent to the vertical.
  enum class StateSent { kNothing, kAck, kClose };

  const Vertical& vertical_;
  const std::string app_type_;
  const UnifiedMessages messages_;
  CallHandleMap calls_;
  SequenceCalls sequence_calls_;

  mutable std::mutex client_mutex_;  // guards client_
  std::shared_ptr<MpaClient> client_;

  std::atomic<StateSent> last_sent_{StateSent::kNothing};
};

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
