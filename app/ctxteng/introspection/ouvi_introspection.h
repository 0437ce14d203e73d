#pragma once

#include <memory>
#include <string>

#include "app/ctxteng/base/engine_parts.h"

namespace Ctxt {

class ConfigHealth;
class OuviConfig;
class PartnerAlarm;

/// The configuration of guest introspection as a part of the engine: reaches the multiplexer by way of the
/// guest event library.
///
/// Threads: `Initialize` and `Shutdown` one after the other, any number of times; the rest in between, from
/// any thread.
class OuviIntrospection final : public IIntrospection {
 public:
  /// Without an alarm, or without health, nothing is posted; a partner's alarm then counts as not posted.
  OuviIntrospection(std::shared_ptr<PartnerAlarm> alarm, std::shared_ptr<ConfigHealth> health);
  ~OuviIntrospection() override;

  void Initialize(const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store,
                  const std::shared_ptr<zem::upm::UPMService>& profiles) override;
  void MuxConnected() override;
  void MuxDisconnected() override;
  void SvmConnected(const std::string& solution_id) override;
  void SvmDisconnected(const std::string& solution_id) override;
  void Shutdown() override;

 private:
  const std::shared_ptr<PartnerAlarm> alarm_;
  const std::shared_ptr<ConfigHealth> health_;
  // Kept after a shutdown: an event of the library may still be on its way.
  std::unique_ptr<OuviConfig> config_;
};

}  // namespace Ctxt
