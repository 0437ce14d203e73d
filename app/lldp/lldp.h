#pragma once

#include <boost/intrusive_ptr.hpp>

namespace zem {
class AsioZemProvider;
class WorkGroup;
}  // namespace zem

namespace zem::Tarvik {

class LldpQub;
class LumClient;

/// The application that answers the manager which neighbours the host's interfaces see.
///
/// Threads: all operations by the main thread.
class Lldp {
 public:
  explicit Lldp(AsioZemProvider& provider);
  virtual ~Lldp();
  Lldp(const Lldp&) = delete;
  Lldp& operator=(const Lldp&) = delete;

  /// `client` has the way to the host's management API.
  void Start(boost::intrusive_ptr<LumClient> client);
  void Stop();

 private:
  AsioZemProvider& provider_;
  boost::intrusive_ptr<WorkGroup> work_group_;
  boost::intrusive_ptr<LldpQub> qub_;
};

}  // namespace zem::Tarvik
