#pragma once

#include <functional>
#include <string>

#include "app/ctxteng/base/client_param.h"
#include "app/ctxteng/idsevents/alert_socket.h"
#include "app/ctxteng/idsqueue/interruption.h"
#include "platform/core/unique_fd.h"

namespace IdsEvtEng {

/// Writes the detection process's lines, each with its rule's tenant, to another program's stream socket.
///
/// A line that the peer has not taken whole when it goes is the first one that the next peer gets.
///
/// Threads: `Run` is the body of one thread, until the engine stops, or until a peer cannot be reached for 50
/// tries.
class ExternalLogger {
 public:
  /// The references outlive the object.
  ExternalLogger(const IdsParam& param, LineQueue& lines,
                 std::function<std::string(uint32_t rule_id)> tenant_of, Interruption& interruption)
      : param_(param), lines_(lines), tenant_of_(std::move(tenant_of)), interruption_(interruption) {}

  void Run();

 private:
  enum class Sent { kWhole, kLost, kPeerGone, kStopped };

  bool Connect();
  bool SendBatches();
  bool SendBatch();
  Sent SendLine(const std::string& line);

  const IdsParam& param_;
  LineQueue& lines_;
  const std::function<std::string(uint32_t)> tenant_of_;
  Interruption& interruption_;
  zem::UniqueFd socket_;
  std::string in_hand_;  // not taken whole by the peer before; empty for none
};

}  // namespace IdsEvtEng
