#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/core/clock.h"
#include "proto/context/idfw.pb.h"

namespace zem::sim {

class Manager;
struct PeerMessage;

/// The manager's service behind "IDFW-Vertical": takes the hosts' batches of logons, acknowledges them or
/// not, and judges them.
///
/// Threads: all operations from any thread.
class LogonReceiver {
 public:
  enum class Kind {
    kOk,
    kStatus,     // with `status` and `text`
    kNever,      // no answer
    kGarbage,    // an acknowledgement whose bytes do not parse
    kOtherType,  // a good one under another type name
    kForeignId,  // no answer, but a request that looks like the acknowledgement of another batch
  };
  struct Answers {
    Kind kind = Kind::kOk;
    int32_t status = 0;
    std::string text;
    /// Number of batches that are answered like this; negative: all.
    int count = -1;
  };
  struct Batch {
    /// How often the host's process had been started.
    uint64_t session = 0;
    uint64_t id = 0;
    WallTime first{};
    /// How often it came.
    uint64_t times = 0;
    bool acknowledged = false;
    std::string bytes;
    orlane::zem::context::idfw::LoginLogoffEventMsg events;
  };
  struct State {
    uint64_t received = 0;      // batches, each as often as it came
    uint64_t batches = 0;       // each once
    uint64_t events = 0;        // of `batches`
    uint64_t acknowledged = 0;  // events of the batches that were answered well
    std::deque<Batch> kept;     // the newest batches
    std::vector<std::string> violations;
  };

  /// `manager` outlives the receiver.  `session` says how often the host's process was started: its ids begin
  /// anew with each start.
  LogonReceiver(Manager& manager, std::function<uint64_t()> session);
  ~LogonReceiver();
  LogonReceiver(const LogonReceiver&) = delete;
  LogonReceiver& operator=(const LogonReceiver&) = delete;

  void SetAnswers(Answers answers);
  /// Answers come so much later; 0 ends it.
  void SetDelay(Duration delay);
  State state() const;
  /// Forgets all batches but the judgement about ids.
  void Forget();

 private:
  std::optional<std::string> Take(const PeerMessage& message);
  void Judge(const Batch& batch);
  Answers TakeAnswers();
  static std::string Answer(const Answers& answers);
  void SendForeign(uint64_t id);
  void Violation(const std::string& text);

  Manager& manager_;
  const std::function<uint64_t()> session_;

  mutable std::mutex mutex_;  // guards what follows
  State state_;
  Answers answers_;
  uint64_t last_session_ = 0;
  uint64_t last_id_ = 0;
  bool may_fall_ = true;  // the ids of a new process are lower, once
};

}  // namespace zem::sim
