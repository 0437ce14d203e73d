#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/upm/profile.h"

namespace zem::covedb {
class CoveDbClientInterface;
}

namespace zem::upm {

/// Follows profiles in the store; see README.md.
///
/// Threads: start and stop by the owner, the rest from any thread.  Callbacks run on the service's own
/// thread, one at a time; `Stop` waits for the one that runs.
class UPMService {
 public:
  /// `store` may be null: then no callback ever runs.
  explicit UPMService(std::shared_ptr<covedb::CoveDbClientInterface> store);
  virtual ~UPMService();
  UPMService(const UPMService&) = delete;
  UPMService& operator=(const UPMService&) = delete;

  virtual void Start();
  virtual void Stop();

  /// Calls `callback` with the profiles of `types` that entities of `entity_type` have: with the complete
  /// list when it is known, and after each connection to the store; in between with what has changed.
  virtual void Register(uint32_t entity_type, std::vector<uint32_t> types, ProfileCallback callback);

  /// All entities of `entity_type` that have profiles of `profile_type`, as `new_profiles`.  Answered from
  /// what the service knows.
  virtual std::vector<ProfileUpdate> QueryEffective(uint32_t profile_type, uint32_t entity_type) const;

  bool started() const { return started_; }
  const std::shared_ptr<covedb::CoveDbClientInterface>& store() const { return store_; }

 private:
  class Impl;

  const std::shared_ptr<covedb::CoveDbClientInterface> store_;
  std::atomic<bool> started_{false};
  const std::shared_ptr<Impl> impl_;
};

}  // namespace zem::upm
