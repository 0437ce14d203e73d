#pragma once

#include <memory>
#include <string>

#include "app/ctxteng/introspection/mux_pusher.h"
#include "app/ctxteng/introspection/partner_solutions.h"

namespace zem::covedb {
class CoveDbClientInterface;
}
namespace zem::upm {
class UPMService;
}

namespace Ctxt {

class AMConfig;
class ConfigHealth;
class MuxPort;
class PartnerAlarm;
class SolutionConfig;
class VmConfig;

/// Configures the guest introspection multiplexer from the store and the profiles, again whenever it comes
/// back, and keeps the alarms of the partners' channels.
///
/// Threads: `Start` and `Shutdown` by the owner; the rest from any thread.
class OuviConfig {
 public:
  OuviConfig(const std::shared_ptr<MuxPort>& port, std::shared_ptr<PartnerAlarm> alarm,
             const std::shared_ptr<ConfigHealth>& health);
  ~OuviConfig();
  OuviConfig(const OuviConfig&) = delete;
  OuviConfig& operator=(const OuviConfig&) = delete;

  /// Both may be null.  Waits for the multiplexer to take the engine's own end point.
  void Start(std::shared_ptr<zem::covedb::CoveDbClientInterface> store,
             std::shared_ptr<zem::upm::UPMService> profile_service);
  void Shutdown();

  void HandleMuxConnected();
  void HandleMuxDisconnected();
  void HandleSvmDisconnected(const std::string& solution_id) { solutions_->SvmDisconnected(solution_id); }
  void HandleSvmConnected(const std::string& solution_id) { solutions_->SvmConnected(solution_id); }

  void SetServiceInstanceId(const std::string& solution_id, const std::string& id) {
    solutions_->SetServiceInstanceId(solution_id, id);
  }
  std::string GetServiceInstanceId(const std::string& solution_id) {
    return solutions_->GetServiceInstanceId(solution_id);
  }
  void SetMuxState(MuxState state) { pusher_->SetState(state); }
  MuxState mux_state() const { return pusher_->state(); }

 private:
  void ResendAll();

  // Shared with the configurations, in whose callbacks the store or the profile service may still be when
  // this object goes.
  const std::shared_ptr<PartnerAlarm> alarm_;
  const std::shared_ptr<PartnerSolutions> solutions_;
  const std::shared_ptr<MuxPusher> pusher_;
  const std::shared_ptr<VmConfig> vm_config_;
  const std::shared_ptr<SolutionConfig> solution_config_;
  const std::shared_ptr<AMConfig> am_config_;
};

}  // namespace Ctxt
