#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/core/retry_policy.h"
#include "platform/rpc/client.h"
#include "platform/rpc/endpoint.h"

namespace zem::rpc {

class Transport;

/// How a stub is made.
struct StubRequest {
  std::string source_id;
  net::Endpoint target;
  /// Tries after the first; the default gives up after three, so that the caller's own policy and log take
  /// over.
  RetryPolicy policy{1000, 1000, 1.0, 2};
  /// 0 or less is without limit.
  int64_t timeout_ms = 0;
};

/// Makes one stub; named "RpcStubCreator[SERVICE, SOURCE, TARGET]" in the log.  Dropping it does not end the
/// creation; `Cancel` does, without a callback.
class StubCreatorBase {
 public:
  virtual ~StubCreatorBase() = default;
  virtual void Cancel() = 0;
  virtual const std::string& name() const = 0;
};

class StubFactory {
 public:
  using ChannelDone = std::function<void(std::shared_ptr<Channel>, const Status&)>;

  virtual ~StubFactory() = default;

  /// `done` runs once on the dispatcher: with the stub and status 0, or with none and status 1.  A channel
  /// that arrives after the time-out or a cancel is closed.
  template <class Stub>
  std::shared_ptr<StubCreatorBase> create(StubRequest request,
                                          std::function<void(std::optional<Stub>, const Status&)> done) {
    return CreateChannel(Stub::service_info(), std::move(request),
                         [done = std::move(done)](std::shared_ptr<Channel> channel, const Status& status) {
                           if (channel) {
                             done(Stub(std::move(channel)), status);
                           } else {
                             done(std::nullopt, status);
                           }
                         });
  }

  virtual std::shared_ptr<StubCreatorBase> CreateChannel(const ServiceInfo& service, StubRequest request,
                                                         ChannelDone done) = 0;
};

}  // namespace zem::rpc
