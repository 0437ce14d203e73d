#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "platform/core/stop_signal.h"
#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"
#include "sim/guest/library/world_link.h"

namespace zem::sim::guest {

/// Where the multiplexer listens for the library that was given `port`.
std::string MuxSocketPath(const std::string& port);

/// The way to the multiplexer over its socket: one connection for events, which comes again when it was lost,
/// and as many for questions as threads ask at once.
class SocketLink final : public WorldLink {
 public:
  SocketLink(std::string path, uint32_t timeout_ms);
  ~SocketLink() override;

  void Start(uint64_t instance, uint32_t most_undelivered, std::function<void(const Event&)> sink) override;
  void Stop() override;
  std::optional<Answer> Ask(const Question& question) override;

 private:
  UniqueFd Connect(bool timed) const;
  void ReceiveEvents(uint64_t instance, uint32_t most_undelivered,
                     const std::function<void(const Event&)>& sink);

  const std::string path_;
  const uint32_t timeout_ms_;
  StopSignal stop_;
  NativeThread receiver_;
  std::mutex mutex_;  // guards what follows
  std::vector<UniqueFd> idle_;
  int events_ = -1;  // the receiver's connection, to shut it down
};

}  // namespace zem::sim::guest
