#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "platform/upm/profile.h"

namespace zem::upm {
class UPMService;
}

namespace Ctxt {

class ConfigHealth;
class MuxPusher;

/// Tells the multiplexer which guest belongs to which solution, as the guests' profiles say.
///
/// Threads: `Start` by the owner; the rest from any thread.
class VmConfig : public std::enable_shared_from_this<VmConfig> {
 public:
  VmConfig(std::shared_ptr<MuxPusher> pusher, std::shared_ptr<ConfigHealth> health)
      : pusher_(std::move(pusher)), health_(std::move(health)) {}

  /// `profile_service` may be null.
  void Start(std::shared_ptr<zem::upm::UPMService> profile_service);
  void HandleMuxReconnect();

 private:
  void TakeProfiles(const std::vector<zem::upm::ProfileUpdate>& updates, bool full_sync);
  void Process(const std::vector<zem::upm::ProfileUpdate>& updates);

  const std::shared_ptr<MuxPusher> pusher_;
  const std::shared_ptr<ConfigHealth> health_;
  std::shared_ptr<zem::upm::UPMService> profile_service_;
};

}  // namespace Ctxt
