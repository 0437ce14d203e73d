#pragma once

#include <optional>
#include <string>
#include <vector>

#include "app/zemda/base/interruption.h"
#include "app/zemda/inventory/qub_objects.h"
#include "platform/core/clock.h"
#include "platform/core/unique_fd.h"

namespace ZemDa {

/// The connection to the host's inventory daemon.
///
/// Threads: the collector's.  All waits end at an interruption, which leaves them by Interrupted.
/// Limits: a line of 1 MiB, a reply of 64 MiB and 4 Mi lines; beyond them, and after two minutes of silence
/// within a reply, the request fails.
class DaLumProxy {
 public:
  /// `interruption` outlives the proxy.
  DaLumProxy(std::string path, Interruption& interruption);

  /// Connects, for some minutes if need be; true also when it is connected already.
  [[nodiscard]] bool Connect();
  /// Asks until the daemon sees its host, for a minute at most.
  [[nodiscard]] bool AwaitHost();
  void Close();

  /// Everything.  Nothing, with the error set, when the reply cannot be had.
  std::optional<std::vector<ReplyLine>> FullSync();
  /// What changes; the daemon answers when there is something.
  std::optional<std::vector<ReplyLine>> Updates();

  /// Whether a request has failed since the last call.
  bool TakeError();

 private:
  bool TryConnect();
  bool DropLeftover();
  bool Send(const std::string& request);
  bool Fill(zem::Duration limit);
  std::optional<std::string> ReadLine(zem::Duration limit);
  std::optional<std::vector<ReplyLine>> Ask(const char* request, const char* what, zem::Duration first);

  const std::string path_;
  Interruption& interruption_;
  zem::UniqueFd socket_;
  std::string received_;  // behind the last line
  size_t searched_ = 0;   // of received_, without an end of line in it
  bool error_ = false;
};

}  // namespace ZemDa
