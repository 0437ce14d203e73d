#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "app/zema/hostlib/router_library.h"
#include "app/zema/hostswitch/dvs_config_info.h"
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
  /// Waits; false when the daemon is stopping.
  using Pause = std::function<bool(Duration)>;

  /// Null `pause` waits for the daemon's shutdown.
  explicit RouterPorts(RouterLibrary& library, Pause pause = nullptr);

  /// Which switches have a router with another address than the one in `macs`.  False with the reason in
  /// `error` when the library fails; a switch without router does not change.
  [[nodiscard]] bool GetDvsIdsChangingVdrMac(const Macs& macs, std::vector<std::string>* changing,
                                             std::string* error);

  /// Takes the router off the switch: the library's code, 0 also when no router was on it.
  uint32_t UnPlumb(const std::string& dvs);

  /// Takes the routers off the switches that `before` has and `after` has not, in order of the ids.  Ends at
  /// the first that fails: its id is added to `failed`, and the result is false.
  [[nodiscard]] bool DisconnectVdrPorts(const Macs& before, const Macs& after,
                                        std::vector<std::string>* failed);

  /// Puts routers onto the switches of `macs` that have an address and are among `switches`.  `revert` does
  /// nothing.  Each failure adds its text to `errors`.
  void ConnectVdrPorts(const std::vector<DvsConfigInfo>& switches, const Macs& macs, bool revert,
                       std::vector<std::string>* errors);

  /// Puts the routers back when the agent starts: with the address in `macs`, or else the one that the
  /// library still has.  After a start of the host it has none.
  void VdrPortReconnection(const std::vector<DvsConfigInfo>& switches, const Macs& macs);

  /// False with the reason in `error` when routers are still on their way out after `seconds`, or the daemon
  /// is stopping.
  [[nodiscard]] bool WaitTillVdrUnloadDone(std::string* error, int seconds);

 private:
  RouterLibrary& library_;
  Pause pause_;
};

}  // namespace zem::zema
