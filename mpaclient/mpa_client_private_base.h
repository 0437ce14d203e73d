#pragma once

#include <map>
#include <memory>
#include <string>

#include "mpaclient/app_init.h"
#include "mpaclient/mp_stub.h"
#include "mpaclient/mpa_client.h"
#include "mpaclient/stub_map.h"
#include "mpaclient/verticals.h"
#include "platform/rpc/close_reason.h"

namespace zem {

class MpaClientAppSpecific;
namespace rpc {
class Server;
class ServiceBase;
}  // namespace rpc

/// The manager client of a vertical on the RPC road: it joins the vertical's host service, the app-init
/// handshake, the stubs of the APHs and the calls.
///
/// Threads: as MpaClient; callbacks and timers run on the forwarding provider.
class MpaClientPrivateBase : public MpaClient,
                             public AppInitPeer,
                             public MpStubSource,
                             public std::enable_shared_from_this<MpaClientPrivateBase> {
 public:
  MpaClientPrivateBase(MpaClientArguments arguments, const Vertical& vertical);
  ~MpaClientPrivateBase() override;

  void updateStubMap() override;
  std::map<std::string, bool> Aphs() const override;
  bool IsMasterStubMissing() override;
  int MsgHandler(const GenericUnifiedMsg& message, const std::string& aph,
                 rpc::CallObserver<VoidMsg>* observer) override;
  int RpcMsgHandler(const GenericUnifiedMsg& message, const std::string& aph,
                    rpc::CallObserver<GenericUnifiedMsg>* observer, uint32_t sequence) override;
  bool CompleteAppInitHandshake(uint32_t sequence, bool success) override;
  bool app_init_completed() const override { return app_init_.completed(); }

  /// What the client's stubs are now, for tests and diagnosis.
  StubMap::Snapshot snapshot() const { return stubs_->snapshot(); }

 protected:
  /// Makes the class of the vertical that turns records into calls.
  virtual std::shared_ptr<MpaClientAppSpecific> MakeAppSpecific(std::shared_ptr<MpaClient> self) = 0;
  /// Null for a vertical that serves no calls of the manager.
  virtual std::shared_ptr<rpc::ServiceBase> MakeHostService(
      std::shared_ptr<MpaClientAppSpecific> instance) = 0;

  AsioZemProvider& forwarding_provider() { return forwarding_provider_; }

 private:
  void AppInitHandshake() override { app_init_.AppInitHandshake(); }
  void CreateAppSpecificInstance(const std::shared_ptr<MpaClient>& self) override;
  void ReleaseAppSpecificInstance() override;
  rpc::CallHandle<GenericUnifiedMsg> GetFromAppSpecificSeqToCallHandleMap(uint32_t sequence) override;
  void RegisterWithTnProxyClient() override;
  int SendMsgViaTnProxy(rmqClientMessage* message, const std::string& aph, SendFailure* why) override;
  void CleanUpForStubs() override { stubs_->CleanUpForStubs(); }
  void HandleClose() override;

  std::string MasterAph() const override { return stubs_->MasterAph(); }
  bool NeedsAppInit() const override;
  int SendAppInitRequest(uint32_t sequence) override;
  bool CancelAppInitCall(uint32_t sequence) override;
  void SendRegistrationAck() override;

  void HandleTnProxyConnected();
  void HandleTnProxyDisconnected(rpc::CloseReason reason);
  void PurgeStaleCallHandles();

  const Vertical& vertical_;
  AsioZemProvider& forwarding_provider_;
  AppInit app_init_;
  std::shared_ptr<MpaClientAppSpecific> app_specific_;
  std::unique_ptr<StubMap> stubs_;
  std::unique_ptr<rpc::Server> server_;
  std::shared_ptr<Timer> purge_timer_;
};

}  // namespace zem
