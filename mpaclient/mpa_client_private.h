#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "mpaclient/client_factory.h"
#include "mpaclient/mpa_client.h"
#include "mpaclient/spread_delay.h"
#include "mpaclient/verticals.h"
#include "platform/rpc/close_reason.h"
#include "platform/rpc/stub_factory.h"

namespace zem {

class MpaClientHostService;
namespace rpc {
class Server;
class ServiceBase;
}  // namespace rpc

/// The two calls that every manager-side service has, whichever service it is.
class MpStub {
 public:
  using GenericUnifiedMsg = MpaClient::GenericUnifiedMsg;
  using VoidMsg = MpaClient::VoidMsg;

  virtual ~MpStub() = default;
  virtual void MsgHandler(const rpc::ClientContext& context, const GenericUnifiedMsg& message,
                          rpc::CallObserver<VoidMsg>* observer) = 0;
  virtual rpc::CallHandle<GenericUnifiedMsg> RpcMsgHandler(
      const rpc::ClientContext& context, const GenericUnifiedMsg& message,
      rpc::CallObserver<GenericUnifiedMsg>* observer) = 0;
  virtual void SetOnStreamDown(std::function<void(rpc::CloseReason)> hook) = 0;
};

/// The RPC road of one vertical: a stub for each APH, made with spread-out delays and retries, following the
/// list of APHs and the master.
///
/// A running stub creation and a change of the list meet at the in-flight set: while a change is pending, a
/// stub that arrives is dropped, and the change waits, looking again every 500 ms, until no creation is under
/// way.  So no stub of an old list survives into the new one, and no APH is forgotten between the two.
///
/// Threads: as MpaClient; callbacks and timers run on the forwarding provider.
/// Locks: update mutex, then app-init lock or stub lock, then APH map lock.  No lock is held while a vertical
/// is called.
class MpaClientPrivateBase : public MpaClient, public std::enable_shared_from_this<MpaClientPrivateBase> {
 public:
  MpaClientPrivateBase(MpaClientArguments arguments, const Vertical& vertical);
  ~MpaClientPrivateBase() override;

  bool IsMasterStubMissing() override;
  void updateStubMap() override;
  void AppInitHandshake() override;
  void CreateAppSpecificInstance(const std::shared_ptr<MpaClient>& self) override;
  void ReleaseAppSpecificInstance() override;
  rpc::CallHandle<GenericUnifiedMsg> GetFromAppSpecificSeqToCallHandleMap(uint32_t sequence) override;
  void RegisterWithTnProxyClient() override;
  int SendMsgViaTnProxy(rmqClientMessage* message, const std::string& aph, SendFailure* why) override;
  int MsgHandler(const GenericUnifiedMsg& message, const std::string& aph,
                 rpc::CallObserver<VoidMsg>* observer) override;
  int RpcMsgHandler(const GenericUnifiedMsg& message, const std::string& aph,
                    rpc::CallObserver<GenericUnifiedMsg>* observer, uint32_t sequence) override;
  void CleanUpForStubs() override;
  std::map<std::string, bool> Aphs() const override;

  const Vertical& vertical() const { return vertical_; }

  /// What the client holds now, for tests and diagnosis.
  struct Snapshot {
    std::vector<std::string> stubs;
    size_t in_flight;
    size_t timers;
    bool update_pending;
    bool master_stub;
    std::string master;
  };
  Snapshot snapshot() const;

 protected:
  using StubDone = std::function<void(std::unique_ptr<MpStub>, const rpc::Status&)>;

  /// Asks the library for a stub of the vertical's service.
  virtual void RequestStub(rpc::StubRequest request, StubDone done) = 0;
  /// Null for a vertical that serves no calls of the manager.
  virtual std::shared_ptr<rpc::ServiceBase> MakeHostService(
      std::shared_ptr<MpaClientAppSpecific> instance) = 0;

  bool AppInitHandshakeLocked() override;
  void SendRegistrationAck() override;
  AsioZemProvider& timer_provider() override;

 private:
  using StubMap = std::unordered_map<std::string, std::shared_ptr<MpStub>>;

  void HandleTnProxyConnected();
  void HandleTnProxyDisconnected(rpc::CloseReason reason);
  void ClearTimerMap(const std::map<std::string, bool>& kept);
  void DropTimersBut(const std::map<std::string, bool>& kept);
  /// What a new list means for the vertical.
  struct Due {
    bool close = false;      // the APH that served it has left the list
    bool handshake = false;  // there is a new master, and it has a stub
  };
  void UpdateAndTell();
  Due PerformUpdateStubMap();
  bool WaitForInfightStubCreateRequest();
  Due ApplyNewMaps(const std::map<std::string, bool>& old_map, const std::map<std::string, bool>& new_map);
  void NewMaster(const std::string& aph);
  void LoseMasterStub();
  void ScheduleStubCreation(const std::string& aph, int64_t delay_ms);
  void ScheduleStubCreationWithLock(const std::string& aph, int64_t delay_ms);
  void AddStubTimer(const std::string& aph, int64_t delay_ms);
  void GetStubFromTimer(const std::string& aph);
  void GetStub(const std::string& aph);
  void StubCreateDone(const std::string& aph, std::unique_ptr<MpStub> stub, const rpc::Status& status);
  void StubCreateFailed(const std::string& aph);
  void OnStreamDown(const std::string& aph, rpc::CloseReason reason);
  /// The first in map order; empty when nobody is.
  static std::string FirstMaster(const std::map<std::string, bool>& aphs);
  std::string MasterAph() const;
  bool IsMaster(const std::string& aph) const;
  bool IsServing(const std::string& aph) const;
  std::shared_ptr<MpStub> FindStub(const std::string& aph);
  int64_t SpreadDelay(uint64_t range_ms) const;
  bool proxy_connected() const;
  void PurgeStaleCallHandles();

  const Vertical& vertical_;
  AsioZemProvider* forwarding_provider_;

  std::shared_ptr<MpaClientAppSpecific> app_specific_;
  std::unique_ptr<rpc::Server> server_;
  std::shared_ptr<Timer> purge_timer_;

  std::string serving_aph_;  // the master of the last handshake; guarded by the app-init lock

  std::mutex update_mutex_;  // serializes changes of the stub map

  mutable std::shared_mutex stub_mutex_;  // guards what follows
  StubMap stub_map_;
  std::unordered_set<std::string> in_flight_;
  std::unordered_map<std::string, std::shared_ptr<Timer>> timer_map_;
  std::unordered_map<std::string, RetryPolicy> retry_policies_;
  bool update_stub_pending_ = false;
  bool master_stub_ = false;
  RetryCountdown retry_countdown_;
  std::shared_ptr<Timer> reschedule_timer_;

  mutable std::shared_mutex aph_mutex_;  // guards the map; the innermost lock
  std::map<std::string, bool> aph_map_;
};

}  // namespace zem
