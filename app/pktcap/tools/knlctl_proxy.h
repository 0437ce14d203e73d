#pragma once

#include <sys/types.h>

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "app/pktcap/tools/port_lookup.h"
#include "app/pktcap/tools/world_list.h"
#include "platform/core/long_mutex.h"
#include "platform/core/unique_fd.h"

namespace zem::Tarvik {

/// The host's proxy of its kernel, a helper process that answers requests one after the other on its standard
/// streams.  Started at the first request; a helper that dies, hangs or speaks nonsense is replaced.
///
/// Threads: `Worlds` by one long-lived thread, `RequestStop` from any, `Stop` when no request runs.
class KnlctlProxy {
 public:
  static constexpr unsigned kAttempts = 10;

  explicit KnlctlProxy(const CaptureTools& tools);
  ~KnlctlProxy();
  KnlctlProxy(const KnlctlProxy&) = delete;
  KnlctlProxy& operator=(const KnlctlProxy&) = delete;

  /// The host's processes; nothing, after a log line, when they cannot be had.  Blocks, up to half a minute.
  std::optional<std::vector<HostWorld>> Worlds();

  /// Ends a request that is under way, and all to come.
  void RequestStop();
  /// Ends the helper.
  void Stop();

 private:
  [[nodiscard]] bool Request(const char* url, WorldReply* reply);
  [[nodiscard]] bool Attempt(const char* url, WorldReply* reply);
  [[nodiscard]] bool StartHelper();
  void EndHelper();
  [[nodiscard]] bool Send(const std::string& bytes, TimePoint deadline);
  [[nodiscard]] bool Receive(char* bytes, size_t size, TimePoint deadline);
  [[nodiscard]] bool WaitFor(short events, TimePoint deadline);

  const CaptureTools& tools_;
  std::atomic<bool> stopped_{false};
  const UniqueFd wake_;
  LongMutex mutex_;  // guards all below; held while a request runs
  pid_t helper_ = -1;
  UniqueFd stream_;  // both of the helper's standard streams
};

}  // namespace zem::Tarvik
