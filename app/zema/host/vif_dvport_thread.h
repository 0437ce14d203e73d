#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "framework/tasks/thread.h"
#include "platform/core/clock.h"
#include "platform/core/unique_fd.h"

namespace zem::zema {

class HandlerPool;
struct VifRequest;

/// The server for the host's vNIC updates.  It receives lists of VIFs that are attached to ports or detached
/// from them, and queues for each the request that the host management daemon would send.  It sends no
/// answers and serves one connection at a time.
///
/// Threads: its own; Stop from any.
class VifDvportThread final : public Thread {
 public:
  static constexpr const char* kSocket = "/etc/orlane/zemaVifDvp";

  /// `pool`, which takes the requests, has to outlive the thread.
  explicit VifDvportThread(HandlerPool& pool, std::string socket = kSocket);
  ~VifDvportThread() override;

  void Run() override;
  void Stop() override;

  /// Returns the requests of a serialized VifMsg, in its order; none when the bytes are not such a message.
  static std::vector<std::shared_ptr<VifRequest>> RequestsOf(std::string_view data);

 private:
  bool Listen();
  void Serve(int connection);
  void AddVifRequests(std::string_view data);

  HandlerPool& pool_;
  const std::string path_;
  UniqueFd stop_event_;
  UniqueFd listener_;
};

}  // namespace zem::zema
