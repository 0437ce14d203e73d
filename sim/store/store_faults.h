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

/// The names of all calls that faults can be set for.
inline constexpr std::array<std::string_view, 12> kStoreCalls = {
    "Get",      "Query",     "Modify",           "CreateVDb",        "DeleteVDb",
    "GetVDbId", "Monitor",   "ConfigureMonitor", "GetSchemaVersion", "GetSchema",
    "Echo",     "GetVersion"};

/// What goes wrong with the store's calls, at somebody's wish.
///
/// Threads: all operations from any thread.
class StoreFaults {
 public:
  explicit StoreFaults(AsioZemProvider& provider);

  /// The next `count` calls of `method` end with `code`; -1 is all of them, 0 none.
  void SetStatus(const std::string& method, int code, int count);
  /// Calls of `method` are served so much later; zero is at once.
  void SetDelay(const std::string& method, Duration delay);
  /// The next `count` answers of "Get" or "Query" carry values that are no messages.
  void SetGarbage(const std::string& method, int count);
  /// While frozen, calls are taken and not served; they are when it ends.
  void SetFrozen(bool frozen);
  /// Forgets the calls that wait while frozen; they get no answer.
  void DropWaiting();
  /// Nothing goes wrong any longer.
  void Clear();

  /// Serves a call: `serve` gets the status code that the call has to end with, 0 for none; at once, or later
  /// on the provider's threads.
  void Pass(std::string_view method, std::function<void(int code)> serve);
  /// True when a call of `method` would be served at once and without fault; it then counts as served.
  bool PassAtOnce(std::string_view method);

  bool TakeGarbage(std::string_view method);

  /// The newest `count` requests of each method are kept from now on; 0 keeps none.
  void KeepRequests(size_t count);
  void NoteRequest(std::string_view method, const google::protobuf::Message& request);
  /// The newest `count` that were kept, oldest first, in text format.
  std::vector<std::string> Requests(const std::string& method, size_t count) const;

  struct Seen {
    std::string method;
    uint64_t calls = 0;
    uint64_t failed = 0;
  };
  /// The calls of each method so far.
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
