#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/provider/provider.h"
#include "platform/rpc/connection.h"
#include "sim/manager/verticals.h"

namespace zem::rpc {
class Server;
}

namespace zem::sim {

/// The outcome of a call to a host.
struct HostAnswer {
  rpc::Status status;
  GenericUnifiedMsg message;  // empty for a publish
};

/// One manager-side proxy: serves every vertical's manager side under its own id, and calls the hosts'
/// services.
///
/// Threads: all operations from any thread but its own.
class Aph {
 public:
  /// `sink` has to outlive the object.  Connects to the node's proxy and retries until it succeeds.
  Aph(std::string id, const std::string& forwarding_endpoint,
      const std::function<std::unique_ptr<MpSink>(Aph*)>& make_sink);
  ~Aph();

  const std::string& id() const { return id_; }
  bool connected() const;

  /// Calls the vertical's service on the host; `done` runs once, on the APH's thread.
  void Call(const ManagerVertical& vertical, const GenericUnifiedMsg& message, bool publish, Duration timeout,
            std::function<void(HostAnswer)> done);

  AsioZemProvider& provider() { return provider_; }

 private:
  struct Pending {
    GenericUnifiedMsg message;
    bool publish;
    Duration timeout;
    std::function<void(HostAnswer)> done;
  };
  void Start(const std::shared_ptr<HostStub>& stub, Pending pending);

  const std::string id_;
  AsioZemProvider provider_;
  std::unique_ptr<MpSink> sink_;
  rpc::ConnectionManager connections_;
  std::unique_ptr<rpc::Server> server_;

  mutable std::mutex mutex_;  // guards all below
  bool connected_ = false;
  std::map<std::string, std::shared_ptr<HostStub>> stubs_;
};

}  // namespace zem::sim
