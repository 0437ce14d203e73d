#pragma once

#include <map>
#include <memory>
#include <string>

#include "framework/tasks/synchronizable.h"

namespace zem::zema {

struct VifRequest;

/// Ports that a user made on the manager, each waiting for the VIF that it is for.
///
/// Threads: all operations from any thread.
class PrecreatedPorts {
 public:
  /// By VIF.
  using Map = std::map<std::string, std::shared_ptr<VifRequest>>;

  /// In the place of all there were.
  void Set(std::shared_ptr<Map> ports);

  /// Takes the port that waits for the request's VIF, if it is the one that is asked for, and completes the
  /// request with it.  What the request says itself stands.
  void Merge(VifRequest& request);

 private:
  Synchronizable lock_;  // guards the map and its entries
  std::shared_ptr<Map> ports_;
};

}  // namespace zem::zema
