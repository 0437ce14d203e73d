#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "app/ctxteng/base/client_param.h"
#include "app/ctxteng/idsevents/intake.h"
#include "app/ctxteng/idsqueue/bounded_queue.h"
#include "app/ctxteng/idsqueue/interruption.h"
#include "app/ctxteng/idsrecord/json_line.h"
#include "platform/core/unique_fd.h"

namespace IdsEvtEng {

class IIdsServices;

/// The lines that wait for the external logger.
using LineQueue = BoundedQueue<std::string>;

/// Receives the detection process's datagrams, each one line of JSON, and hands on what they announce.
///
/// Threads: `Run` is the body of one thread, until the engine stops.
class AlertSocket {
 public:
  /// The references outlive the object.
  AlertSocket(const IdsParam& param, Intake& intake, LineQueue& log_lines, IIdsServices& services,
              Interruption& interruption)
      : param_(param),
        intake_(intake),
        log_lines_(log_lines),
        services_(services),
        interruption_(interruption) {}

  void Run();

  /// What the thread does with one datagram.
  void Take(std::string_view datagram);

 private:
  bool Open();
  void WaitAndReceive();
  void Receive();
  void TakeReceived(char* bytes, ssize_t length, int error);
  void KeepForLogger(std::string_view text);

  const IdsParam& param_;
  Intake& intake_;
  LineQueue& log_lines_;
  IIdsServices& services_;
  Interruption& interruption_;
  zem::UniqueFd socket_;
  size_t datagram_size_ = 0;  // of one buffer, its closing zero not counted
  size_t datagrams_ = 0;      // received at once
  std::vector<char> buffers_;
  JsonLine line_;  // kept for its memory
};

}  // namespace IdsEvtEng
