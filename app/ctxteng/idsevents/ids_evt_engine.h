#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "app/ctxteng/base/client_param.h"

namespace Ctxt {
class CtxtChannel;
}

namespace IdsEvtEng {

class IIdsServices;
struct IdsCounters;

/// What the engine meets beside its client.  The references outlive the engine.
struct EngineSurroundings {
  IIdsServices& services;
  Ctxt::CtxtChannel& channel;
  IdsCounters& counters;
  /// The name of the guest user whose key has this hash; nothing when the user is not known.
  std::function<std::optional<std::string>(uint32_t user_hash)> user_name;
  /// Called at the end of a successful `Start`.
  std::function<void()> notify_started;
};

/// Takes the alerts and captures of the host's detection process to the manager and to Kafka, and its raw
/// lines to an external logger.
///
/// Threads: `Start` and `Stop` by the owner, one after the other.  `Stop` returns within a second whatever a
/// peer does, and leaves the queues as they are; the destructor stops as well.
class IdsEvtEngine {
 public:
  /// Throws std::runtime_error when a queue is to hold more than 65534 entries.
  IdsEvtEngine(const IdsParam& param, EngineSurroundings surroundings);
  ~IdsEvtEngine();
  IdsEvtEngine(const IdsEvtEngine&) = delete;
  IdsEvtEngine& operator=(const IdsEvtEngine&) = delete;

  /// Registers with the channel and starts the threads.  -1, after a log line, when a thread could not be
  /// made; what the channel throws is passed on.
  int Start();
  void Stop();

 private:
  struct Parts;
  const std::unique_ptr<Parts> parts_;
};

}  // namespace IdsEvtEng
