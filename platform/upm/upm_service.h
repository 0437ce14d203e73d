#pragma once

#include <atomic>
#include <memory>

namespace zem::covedb {
class CoveDbClientInterface;
}

namespace zem::upm {

/// Follows profiles in the store; see README.md.
///
/// Threads: start and stop by the owner.
class UPMService {
 public:
  /// `store` may be null.
  explicit UPMService(std::shared_ptr<covedb::CoveDbClientInterface> store);
  virtual ~UPMService();

  virtual void Start();
  virtual void Stop();

  bool started() const { return started_; }
  const std::shared_ptr<covedb::CoveDbClientInterface>& store() const { return store_; }

 private:
  const std::shared_ptr<covedb::CoveDbClientInterface> store_;
  std::atomic<bool> started_{false};
};

}  // namespace zem::upm
