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

  /// Replaces all ports.
  void Set(std::shared_ptr<Map> ports);

  /// Removes the port that waits for the request's VIF, if it matches the request, and fills the request's
  /// empty fields from it.
  void Merge(VifRequest& request);

 private:
  Synchronizable lock_;  // guards the map and its entries
  std::shared_ptr<Map> ports_;
};

}  // namespace zem::zema
