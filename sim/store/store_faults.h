#pragma once

#include <array>
#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/core/clock.h"

namespace google::protobuf {
class Message;
}
namespace zem {
class AsioZemProvider;
}

namespace zem::sim {

/// The names of all calls for which faults can be set.
inline constexpr std::array<std::string_view, 12> kStoreCalls = {
    "Get",      "Query",     "Modify",           "CreateVDb",        "DeleteVDb",
    "GetVDbId", "Monitor",   "ConfigureMonitor", "GetSchemaVersion", "GetSchema",
    "Echo",     "GetVersion"};

/// Faults that tests and operators inject into the store's calls.
///
/// Threads: all operations from any thread.
class StoreFaults {
 public:
  explicit StoreFaults(AsioZemProvider& provider);

  /// The next `count` calls of `method` end with `code`; -1 means all, 0 none.
  void SetStatus(const std::string& method, int code, int count);
  /// Calls of `method` are served after this delay; zero serves them at once.
  void SetDelay(const std::string& method, Duration delay);
  /// The next `count` answers of "Get" or "Query" carry values that cannot be parsed.
  void SetGarbage(const std::string& method, int count);
  /// While frozen, calls are accepted but not served; they are served when the freeze ends.
  void SetFrozen(bool frozen);
  /// Drops the calls that wait because of a freeze; they get no answer.
  void DropWaiting();
  /// Ends all faults.
  void Clear();

  /// Serves a call: `serve` is called with the status code with which the call has to end, 0 for none; at
  /// once, or later on a thread of the provider.
  void Pass(std::string_view method, std::function<void(int code)> serve);
  /// Returns true when a call of `method` would be served at once and without a fault; it is then counted as
  /// served.
  bool PassAtOnce(std::string_view method);

  bool TakeGarbage(std::string_view method);

  /// From now on keeps the newest `count` requests of each method; 0 keeps none.
  void KeepRequests(size_t count);
  void NoteRequest(std::string_view method, const google::protobuf::Message& request);
  /// The newest `count` of the kept requests, oldest first, in text format.
  std::vector<std::string> Requests(const std::string& method, size_t count) const;

  struct Seen {
    std::string method;
    uint64_t calls = 0;
    uint64_t failed = 0;
  };
  /// The number of calls of each method so far.
  std::vector<Seen> Calls() const;

 private:
  struct Fault {
    int code = 0;
    int count = 0;
    Duration delay{};
    int garbage = 0;
    uint64_t calls = 0;
    uint64_t failed = 0;
  };
  struct Waiting {
    std::string method;
    std::function<void(int)> serve;
  };
  struct State {
    std::mutex mutex;  // guards all below
    std::map<std::string, Fault, std::less<>> faults;
    bool frozen = false;
    std::map<std::string, std::deque<std::string>, std::less<>> requests;
    std::vector<Waiting> waiting;
  };
  static void Enter(const std::shared_ptr<State>& state, const std::string& method,
                    std::function<void(int)> serve);

  AsioZemProvider& provider_;
  std::atomic<size_t> kept_ = 0;
  const std::shared_ptr<State> state_;  // shared with delayed calls
};

}  // namespace zem::sim
