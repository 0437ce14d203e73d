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
class Workers;

/// What the engine meets.  The references outlive the engine, and a thread that `Stop` had to leave behind in
/// one of their calls.
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
/// Threads: `Start` and `Stop` by the owner, once each.  `Stop` waits for a peer that hangs 5 seconds at
/// most; what waits in the queues is not sent.  The destructor stops as well.
class IdsEvtEngine {
 public:
  /// Throws std::runtime_error when a queue is to hold more than 65534 entries.
  IdsEvtEngine(const IdsParam& param, EngineSurroundings surroundings);
  ~IdsEvtEngine();
  IdsEvtEngine(const IdsEvtEngine&) = delete;
  IdsEvtEngine& operator=(const IdsEvtEngine&) = delete;

  /// Registers with the channel and starts the threads.  -1, after a log line, when a thread could not be
  /// made.  Throws what the channel throws.
  int Start();
  void Stop();

 private:
  struct Parts;

  void Register();
  void StartThreads();

  const std::shared_ptr<Parts> parts_;
  const std::unique_ptr<Workers> workers_;
  bool running_ = false;
};

}  // namespace IdsEvtEng
