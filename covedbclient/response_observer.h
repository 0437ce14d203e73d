#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "covedbclient/client_log.h"
#include "platform/rpc/client.h"

namespace zem::covedb {

/// Gathers the answers of one call and gives them, with the call's status, to one function at its end.  Made
/// with `new`; deletes itself then.
template <class Response, class Gathered>
class ResponseObserver final : public rpc::CallObserver<Response> {
 public:
  using Gather = void (*)(const Response& response, Gathered& gathered);
  using Done = std::function<void(Gathered& gathered, const rpc::Status& status)>;

  /// `received` is logged for each answer, unless null, and lives forever.
  ResponseObserver(const char* received, Gather gather, Done done)
      : received_(received), gather_(gather), done_(std::move(done)) {}

  void Next(const Response& response) override {
    if (received_ != nullptr) ZLOG_DEBUG("%s", received_);
    gather_(response, gathered_);
  }

  void CallStatus(const rpc::Status& status) override {
    const std::unique_ptr<ResponseObserver> self(this);
    if (done_) done_(gathered_, status);
  }

 private:
  const char* const received_;
  const Gather gather_;
  const Done done_;
  Gathered gathered_{};
};

}  // namespace zem::covedb
