#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/rpc/call_state.h"

namespace zem::rpc {

namespace server {
class RequestSink;
}

/// A call from the server's side, as contexts and generated services see it.  Part of the library's inner
/// side.
///
/// Threads: the getters and hooks from any thread once the handler runs.
class ServerCallState : public CallState {
 public:
  using Headers = std::vector<std::pair<std::string, std::string>>;

  virtual const std::string& target_id() const = 0;
  virtual const std::string& client_id() const = 0;
  virtual const Headers& headers() const = 0;
  virtual TimePoint deadline() const = 0;
  virtual void SetOnClose(std::function<void(const Status&)> hook) = 0;
  virtual void SetOnWritable(std::function<void()> hook) = 0;

  /// Makes the first written message the final one.
  virtual void SetSingleAnswer() = 0;
  /// The last handle is gone.  If the call is unanswered, it ends without an answer.
  virtual void HandleDropped() = 0;
  /// Hands further requests to `sink`; `data` is the first one, or null.
  virtual void AttachRequests(std::unique_ptr<server::RequestSink> sink, const char* data, size_t size,
                              bool last) = 0;
};

}  // namespace zem::rpc
