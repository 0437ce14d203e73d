#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/ctxteng/base/client_param.h"
#include "app/ctxteng/base/engine_parts.h"
#include "app/ctxteng/engine/callback_gate.h"
#include "app/ctxteng/engine/start_barrier.h"
#include "app/ctxteng/guest/guest_table.h"
#include "app/ctxteng/guest/user_tables.h"
#include "app/ctxteng/handler/client_set.h"
#include "platform/endvat/endvat.h"

namespace Ctxt {

class CtxtClientHandler;
class IEndvatLib;
class MuxEvents;
namespace DfwUtil {
class DfwConnector;
}

/// What the engine is made of.  A part that is null is left out.
struct EngineParts {
  std::function<std::shared_ptr<IEndvatLib>()> make_library;
  DfwUtil::DfwConnector* firewall = nullptr;
  ClientSet clients;
  std::shared_ptr<IIntrospection> introspection;
  std::shared_ptr<IContextHealth> health;
  std::shared_ptr<IEngineChannel> channel;
};

/// The core of the context engine: the tables of guests and users, and the entry points of the guest event
/// library.
///
/// Threads: `Initialize` and `Shutdown` by the owner, one after the other, any number of times.  The entry
/// points run on the library's threads; the tables from any thread.
class CtxtCore {
 public:
  struct Settings {
    std::string listen_port;
    std::string worker_threads;
    std::string max_events_per_vm;
    uint32_t client_ids = 0;
    CtxtClientParam param;
  };

  /// The process's core, made at the first use.
  static CtxtCore& GetInstance();

  CtxtCore();
  virtual ~CtxtCore();
  CtxtCore(const CtxtCore&) = delete;
  CtxtCore& operator=(const CtxtCore&) = delete;

  /// Throws what a part throws.
  void Initialize(const Settings& settings, EngineParts parts,
                  const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store,
                  const std::shared_ptr<zem::upm::UPMService>& profiles);
  /// Returns when no callback is running: at the latest 15 seconds after one that hangs.
  void Shutdown(uint32_t client_ids);

  void WaitForStart() { barrier_.WaitForStart(); }
  void NotifyStarted() { barrier_.NotifyStarted(); }
  bool started() { return barrier_.open(); }
  /// The guests' multiplexer was there and has gone.
  bool mux_away() const { return mux_away_; }

  GuestTable& guests() { return guests_; }
  UserTables& users() { return users_; }
  /// The clients that run, as bits.
  uint32_t active_clients() const;

  /// The library's entry points.
  void VmEventHandler(uint32_t type, ENDVAT_HANDLE handle, void* data);
  uint32_t NetworkEventHandler(uint32_t type, ENDVAT_HANDLE handle, void* data);
  void SystemEventHandler(uint32_t type, ENDVAT_HANDLE handle, void* data);
  void TimerEventHandler(void* data);
  void MuxEventHandler(uint32_t type);

 private:
  // The parts of one run, from `Initialize` to `Shutdown`.
  struct Run {
    EngineParts parts;
    std::unique_ptr<CtxtClientHandler> handler;
    std::unique_ptr<MuxEvents> mux;
  };

  void PowerOn(ENDVAT_HANDLE handle);
  void PowerOff(const void* data);
  void HandTheMaskOver(VmData& vm);

  CallbackGate gate_;
  StartBarrier barrier_;
  GuestTable guests_;
  UserTables users_;
  // A run is kept after its shutdown, since a callback or a client's start that hung may still be in it.  The
  // next start frees it when nothing was left inside.
  std::vector<std::unique_ptr<Run>> runs_;
  std::atomic<Run*> run_{nullptr};
  bool something_left_inside_ = false;
  std::atomic<bool> mux_away_{false};
};

}  // namespace Ctxt
