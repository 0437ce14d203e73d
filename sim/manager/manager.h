#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sim/manager/aph.h"
#include "sim/manager/proxy.h"
#include "sim/manager/vif_table.h"

namespace zem::sim {

/// How the manager answers a host's requests.
struct AnswerRule {
  enum class Kind {
    kServe,      // app-init with its config, a VIF from the table, everything else with the message that came
    kStatus,     // with `status`
    kNever,      // not at all
    kGarbage,    // with bytes that do not parse
    kWrongType,  // with a message of the vertical that nobody asked for
    kText,       // with `text`, a host unified message in text format
  };
  Kind kind = Kind::kServe;
  int status = 13;
  Duration delay{};
  std::string text;
  /// Requests it holds for; negative is without end.
  int count = -1;
};

/// A message of a host.
struct Received {
  uint64_t number;
  std::string aph;
  std::string vertical;
  std::string host;
  bool publish;
  std::string type;
  std::string correlation_id;
  std::string tracking_id;
  std::string json;
};

/// The central manager behind one node's proxy, with its APHs: keeps who is master, remembers what hosts
/// send, answers by rules, and calls the hosts.
///
/// Threads: all operations from any thread but the peers' own.
class Manager {
 public:
  struct Options {
    std::string info_endpoint = "tcp://127.0.0.1:9004";
    std::string forwarding_endpoint = "tcp://127.0.0.1:4096";
    std::string transport_node_id;
    std::optional<std::pair<uint32_t, uint32_t>> version{{4, 2}};
    /// Messages of hosts that are kept; older ones are forgotten.
    size_t remembered = 100000;
  };

  explicit Manager(Options options);
  ~Manager();

  // The proxy process.
  void StartProxy();
  void StopProxy();
  bool proxy_running() const;
  /// Null while the proxy is stopped.
  std::shared_ptr<Proxy> proxy() const;

  // The APHs.  Each change is told to the subscribers.
  void AddAph(const std::string& id, bool master);
  /// Ends an APH.  With `keep_listed` the proxy goes on naming it, as it does for a while when one dies.
  bool RemoveAph(const std::string& id, bool keep_listed);
  /// Empty: nobody is.
  bool SetMaster(const std::string& id);
  /// Tells this instead of the true list until the next change.
  void PublishRaw(const ProxyInfo& info);
  std::vector<std::pair<std::string, bool>> Aphs() const;
  std::string Master() const;

  /// For one vertical ("" for all), split by whether the request is an app-init one.
  void SetRule(const std::string& vertical, bool app_init, AnswerRule rule);

  struct SendRequest {
    std::string vertical;
    std::string aph;  // empty: the master
    std::string member;
    std::string text;  // of the member, text format
    std::optional<std::string> correlation_id;
    /// In the unified message, instead of the member's own.
    std::string type;
    bool with_header = true;
    bool publish = false;
    Duration timeout = std::chrono::seconds(30);
  };
  /// Calls a host.  The text of what is wrong with the request, or empty when it is on its way.
  std::string Send(const SendRequest& request, std::function<void(HostAnswer)> done);
  /// The bytes of the last message of a kind that was sent, by its short name, or of the `back`th before it;
  /// nothing when it was never sent or is forgotten.
  std::optional<std::string> LastSent(const std::string& member, size_t back = 0) const;
  /// The answer's unified message as JSON.
  static std::string AnswerJson(const std::string& vertical, const HostAnswer& answer);

  /// Where VIFs are; it answers requests about them once it knows a logical switch.
  VifTable& vifs() { return vifs_; }

  std::vector<Received> ReceivedFrom(const std::string& vertical, uint64_t after) const;
  uint64_t received_count() const;
  /// App-init requests of a vertical that were served by the present master since it became one.
  std::map<std::string, uint64_t> served_app_inits() const;

 private:
  class Sink;

  void Receive(const Aph& aph, const std::string& vertical, const std::string& host,
               const GenericUnifiedMsg& message, bool publish, bool* app_init);
  void Answer(Aph* aph, const std::string& vertical, const GenericUnifiedMsg& request, bool app_init,
              rpc::CallHandle<GenericUnifiedMsg> call);
  /// False when the request is not one for the table.
  bool AnswerVif(Aph* aph, const GenericUnifiedMsg& request, const GenericUnifiedMsg& header, Duration delay,
                 rpc::CallHandle<GenericUnifiedMsg> call);
  void PublishLocked();
  AnswerRule TakeRule(const std::string& vertical, bool app_init);

  const Options options_;
  VifTable vifs_;

  mutable std::mutex mutex_;  // guards all below
  std::shared_ptr<Proxy> proxy_;
  std::map<std::string, std::unique_ptr<Aph>> aphs_;
  std::map<std::string, bool> listed_;
  std::map<std::pair<std::string, bool>, AnswerRule> rules_;
  std::deque<Received> received_;
  uint64_t last_number_ = 0;
  std::map<std::string, uint64_t> served_;
  std::map<std::string, std::deque<std::string>> last_sent_;  // by member, newest first
};

}  // namespace zem::sim
