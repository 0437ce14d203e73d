#pragma once

#include <functional>
#include <string>

namespace zem {
class AsioZemProvider;
}

namespace zem::sim {

/// The result of a health check of the daemon.
struct HealthEcho {
  /// 0, or the status of the failed call; 1 when the daemon could not be reached.
  int status = 0;
  std::string text;
};

/// Asks the daemon's health service to echo `text`; `done` runs once, on the provider, within about four
/// seconds.
void CallHealthEcho(AsioZemProvider& provider, const std::string& text, std::function<void(HealthEcho)> done);

}  // namespace zem::sim
