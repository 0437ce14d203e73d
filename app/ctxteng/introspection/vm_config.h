#pragma once

#include <memory>
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
  /// The references outlive the pusher's tasks.
  VmConfig(MuxPusher& pusher, ConfigHealth& health) : pusher_(pusher), health_(health) {}

  /// `profile_service` may be null.
  void Start(std::shared_ptr<zem::upm::UPMService> profile_service);
  void HandleMuxReconnect();

 private:
  void TakeProfiles(const std::vector<zem::upm::ProfileUpdate>& updates, bool full_sync);
  void Process(const std::vector<zem::upm::ProfileUpdate>& updates);

  MuxPusher& pusher_;
  ConfigHealth& health_;
  std::shared_ptr<zem::upm::UPMService> profile_service_;
};

}  // namespace Ctxt
