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

/// The server of the host's vNIC updates: takes lists of VIFs that come to ports or leave them, and asks for
/// each what a request of the host management daemon would; nobody is answered.  One connection at a time.
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

  /// The requests of a serialized VifMsg, in its order; none of bytes that are no such message.
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
