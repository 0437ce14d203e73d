#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "app/ctxteng/base/client_param.h"
#include "app/ctxteng/guest/conn_info_builder.h"
#include "app/ctxteng/guest/guest_table.h"
#include "app/ctxteng/handler/client_set.h"
#include "platform/endvat/endvat.h"

namespace Ctxt {

namespace DfwUtil {
class DfwConnector;
}
class StoreMonitors;
class UserTables;

/// Starts the clients and passes each guest event to those that want it, and to the firewall.
///
/// Threads: `Initialize` and `Shutdown` by the owner, one after the other; the events on the library's worker
/// threads, several guests at once.  No lock is held while a client, the library or the firewall is called.
class CtxtClientHandler {
 public:
  /// `users`, `guests` and `firewall` outlive the handler.
  CtxtClientHandler(ClientSet clients, UserTables& users, DfwUtil::DfwConnector& firewall);
  virtual ~CtxtClientHandler();
  CtxtClientHandler(const CtxtClientHandler&) = delete;
  CtxtClientHandler& operator=(const CtxtClientHandler&) = delete;

  /// Configures the monitors of the store, which may be null, and starts the thread that initialises the
  /// clients and then enables the library's callbacks.  `started` is called once at its end.
  void Initialize(uint32_t client_ids, const CtxtClientParam& param,
                  const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store,
                  const std::shared_ptr<zem::upm::UPMService>& profiles, std::function<void()> started);
  /// Ends the clients.  Waits for the start-up thread, 10 seconds at most; one that is late enables nothing.
  /// Returns false when it is still running: the handler then has to outlive it.
  [[nodiscard]] bool Shutdown(uint32_t client_ids);

  void VmPowerOn(const GuestTable::Record& vm);
  void VmPowerOff(const GuestTable::Record& vm);
  void Timer(const GuestTable::Record& vm);
  void GiInfo(const GuestTable::Record& vm);
  /// The verdict, always 1.
  uint32_t NetworkEvent(uint32_t type, ENDVAT_HANDLE handle, const GuestTable::Record& vm);
  void SystemEvent(uint32_t type, ENDVAT_HANDLE handle, const GuestTable::Record& vm);

  uint32_t active_clients() const { return active_clients_; }

 private:
  struct StartUp;

  void InitializeClients(uint32_t client_ids, const CtxtClientParam& param,
                         const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store, StartUp& start_up);
  void InitializeClient(uint32_t bit, const std::shared_ptr<ICtxtClient>& client, const char* name,
                        const CtxtClientParam& param,
                        const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store, StartUp& start_up);
  void EnableCallbacks();
  void ShutdownClient(uint32_t client_ids, uint32_t bit, const std::shared_ptr<ICtxtClient>& client,
                      const char* name);
  bool Active(uint32_t bits) const { return (active_clients_ & bits) != 0; }
  bool Wants(uint32_t bit, uint32_t client_type, uint32_t type, VmData& vm) const;
  void FetchUsers(VmData& vm);
  void ProgramDfw(const ConnInfo& connection, bool zemi_wanted);
  void Logon(const UserSessionInfo& session, VmData& vm);
  void Logoff(const UserSessionInfo& session, VmData& vm);

  const ClientSet clients_;
  UserTables& users_;
  DfwUtil::DfwConnector& firewall_;
  const std::shared_ptr<StoreMonitors> monitors_;
  std::unique_ptr<ConnInfoBuilder> builder_;
  std::atomic<uint32_t> active_clients_{0};
  std::atomic<uint32_t> next_user_fetch_tick_{1};
  std::shared_ptr<StartUp> start_up_;
};

}  // namespace Ctxt
