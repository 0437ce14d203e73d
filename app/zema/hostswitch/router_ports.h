#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "app/zema/hostlib/router_library.h"
#include "app/zema/hostswitch/dvs_config_info.h"
#include "framework/tasks/outcome.h"
#include "platform/core/clock.h"

namespace zem::zema {

/// The port of the host's router on each switch.
///
/// Threads: all operations from any thread that may wait.
/// Ownership: holds the library by reference.
class RouterPorts {
 public:
  /// MAC addresses as texts by the switch's id; empty where the switch has no router.
  using Macs = std::map<std::string, std::string>;
  /// Waits for the given time; returns false when the daemon is stopping.
  using Pause = std::function<bool(Duration)>;

  /// Without `pause`, a wait ends early when the daemon shuts down.
  explicit RouterPorts(RouterLibrary& library, Pause pause = nullptr);

  /// Finds the switches whose router has an address other than the one in `macs`; a switch without router is
  /// not among them.  Returns false and sets `error` when the library fails.
  [[nodiscard]] bool GetDvsIdsChangingVdrMac(const Macs& macs, std::vector<std::string>* changing,
                                             std::string* error);

  /// Removes the router from the switch.  Returns the library's code, 0 also when the switch had no router.
  uint32_t UnPlumb(const std::string& dvs);

  /// Removes the routers from the switches that are in `before` but not in `after`, in order of the ids.
  /// Stops at the first failure, adds the switch's id to `failed` and returns false.
  [[nodiscard]] bool DisconnectVdrPorts(const Macs& before, const Macs& after,
                                        std::vector<std::string>* failed);

  /// Connects routers to the switches of `macs` that have an address and are among `switches`.  Does nothing
  /// when `revert` is set.  Each failure adds its text to `errors`.
  void ConnectVdrPorts(const std::vector<DvsConfigInfo>& switches, const Macs& macs, bool revert,
                       std::vector<std::string>* errors);

  /// Reconnects the routers when the agent starts: with the address in `macs`, or else with the one that the
  /// library still has.  After a restart of the host the library has none.
  void VdrPortReconnection(const std::vector<DvsConfigInfo>& switches, const Macs& macs);

  /// Waits until no router is being unloaded; fails after `seconds`, and when the daemon is stopping.
  Outcome WaitTillVdrUnloadDone(int seconds);

 private:
  RouterLibrary& library_;
  Pause pause_;
};

}  // namespace zem::zema
