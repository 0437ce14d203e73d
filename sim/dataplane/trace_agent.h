#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/core/condition.h"
#include "platform/core/thread.h"
#include "sim/dataplane/packet_walk.h"

namespace orlane::zem::lcp {
class LcpDpMsg;
}
namespace orlane::zem::livetrace {
class LivetraceMetadataMsg;
class LivetraceRequestMsg;
}  // namespace orlane::zem::livetrace
namespace orlane::zem::traceflow {
class TraceflowPacketOutRequestMsg;
}

namespace zem::sim {

class DataplaneAgent;

/// The traces of the dataplane agent: walks injected packets through the host's switches and tells each hop;
/// samples live traces, writes their captures and ends them with a barrier.  What belongs to a connection
/// ends with it, and so do captures that were not handed over.
///
/// Threads: all operations from any thread.
class TraceAgent {
 public:
  /// How requests are answered.
  enum class Answers {
    kGood,
    kSilent,     ///< not at all
    kTwice,      ///< each status twice
    kUnknownId,  ///< first for a round or session that nobody asked for
    kOtherSide,  ///< what belongs to one side of a session names the other
    kGarbage,    ///< first a frame that is no message
    kCut,        ///< half a frame, then the connection ends
  };

  /// Captures are written to the folder `captures`.
  TraceAgent(DataplaneAgent& link, std::string captures);
  ~TraceAgent();
  TraceAgent(const TraceAgent&) = delete;
  TraceAgent& operator=(const TraceAgent&) = delete;

  /// The next `count` requests, all for a negative count.
  void SetAnswers(Answers answers, int count);
  /// How late everything is answered from now on.
  void SetDelay(Duration delay);

  struct Round {
    std::string id;
    std::string port;
    /// When the request came, of the process's clock.
    TimePoint at;
    size_t hops = 0;
    bool answered = false;
  };
  struct Session {
    uint64_t id = 0;
    uint32_t side = 0;
    std::string name;
    std::string port;
    std::string upload_id;
    TimePoint at;
    uint32_t packets = 0;
    /// The capture's name; empty for none.
    std::string capture;
  };
  /// The newest rounds, oldest first.
  std::vector<Round> rounds() const;
  /// Those that run.
  std::vector<Session> sessions() const;
  /// Captures that were named in a barrier.
  std::vector<std::string> handed_over() const;

  // What the dataplane does by itself.  Each gives an empty text, or why it could not.
  std::string Onboard(uint64_t id, const std::string& port, uint32_t packets);
  std::string Invalidate(uint64_t id, uint32_t side);
  /// Ends a session early, with its barrier.
  std::string End(uint64_t id, uint32_t side);

 private:
  using Key = std::pair<uint64_t, uint32_t>;
  struct Running {
    Session session;
    Answers answers = Answers::kGood;
    bool count = false;
    bool trace = true;
    std::vector<std::string> packets;  // sampled
    std::vector<Hop> hops;
    bool over = false;
  };

  void Serve();
  void PostLocked(Duration delay, std::function<void()> work);
  Answers TakeAnswersLocked();
  void Take(const orlane::zem::lcp::LcpDpMsg& message);
  void TakeRound(const orlane::zem::traceflow::TraceflowPacketOutRequestMsg& request, Answers answers);
  void TakeSession(const orlane::zem::livetrace::LivetraceRequestMsg& request, Answers answers);
  void Begin(const std::shared_ptr<Running>& session, Duration duration);
  void Sample(const std::shared_ptr<Running>& session);
  void Finish(const std::shared_ptr<Running>& session);
  void Drop(const std::shared_ptr<Running>& session);
  void DropAll();
  std::shared_ptr<Running> Find(uint64_t id, uint32_t side) const;
  static void Name(const Running& session, orlane::zem::livetrace::LivetraceMetadataMsg* metadata);
  bool Misbehave(Answers answers, const orlane::zem::lcp::LcpDpMsg& status);
  bool Send(const orlane::zem::lcp::LcpDpMsg& message);

  DataplaneAgent& link_;
  const std::string captures_;

  mutable std::mutex mutex_;  // guards what follows, sessions included
  Condition changed_;
  bool stopping_ = false;
  std::multimap<TimePoint, std::function<void()>> due_;
  Answers answers_ = Answers::kGood;
  int answers_left_ = 0;
  Duration delay_{0};
  std::vector<Round> rounds_;
  std::map<Key, std::shared_ptr<Running>> sessions_;
  std::vector<std::string> handed_over_;
  NativeThread thread_;
};

/// The names of Answers, in their order.
inline constexpr const char* kTraceAnswers[] = {"good",       "silent",  "twice", "unknown-id",
                                                "other-side", "garbage", "cut"};

}  // namespace zem::sim
