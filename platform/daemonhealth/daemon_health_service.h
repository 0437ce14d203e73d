#pragma once

#include "proto/base/base.pb.h"
#include "proto/daemon/daemon.rpc.h"

namespace zem {

/// Answers whoever asks whether this process lives.  It lives when it answers: the answers come from the main
/// event loop and from nowhere else.
class DaemonHealthService final : public daemon::DaemonHealth::Service {
 public:
  explicit DaemonHealthService(orlane::zem::ProductVersionMsg version) : version_(std::move(version)) {}

  void Echo(rpc::ServerContext&, const daemon::EchoMsg& request,
            rpc::CallHandle<daemon::EchoMsg> call) override {
    call.Finish(request);
  }

  void GetVersion(rpc::ServerContext&, const orlane::zem::VoidMsg&,
                  rpc::CallHandle<orlane::zem::ProductVersionMsg> call) override {
    call.Finish(version_);
  }

 private:
  const orlane::zem::ProductVersionMsg version_;
};

}  // namespace zem
