#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orlane::zem::context {
class ContextHostConfigMsg;
}

namespace Ctxt::PaceClient {

/// How the manager wants the collection.
struct CollectionSettings {
  /// Whole minutes.
  uint32_t collection_interval_ms = 300000;
  std::vector<std::string> context_process_name;
  std::vector<std::string> context_process_hash;
  std::vector<std::string> context_user_sid;
  std::vector<std::string> context_user_uid;

  /// An interval that `config` does not name stays; one of 0 minutes counts as 1.
  void Take(const orlane::zem::context::ContextHostConfigMsg& config);
};

}  // namespace Ctxt::PaceClient
