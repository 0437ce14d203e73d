#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sim/manager/aph.h"
#include "sim/manager/message_record.h"
#include "sim/manager/proxy.h"
#include "sim/manager/vif_table.h"

namespace zem::sim {

/// How the manager answers a host's requests.
struct AnswerRule {
  enum class Kind {
    kServe,      // app-init with its config, a VIF from the table, everything else with the received message
    kStatus,     // with the status code `status`
    kNever,      // no answer
    kGarbage,    // with bytes that do not parse
    kWrongType,  // with a message of the vertical that was not requested
    kText,       // with `text`, a host unified message in text format
  };
  Kind kind = Kind::kServe;
  int status = 13;
  Duration delay{};
  std::string text;
  /// Number of requests that the rule applies to; negative: all.
  int count = -1;
};

/// A message as the manager's own service behind a vertical receives it.
struct PeerMessage {
  std::string host;
  std::string correlation_id;
  bool publish;
  /// The vertical's unified message, serialized.
  std::string payload;
};

/// The manager's own service behind a vertical.  Returns the serialized unified message that answers a
/// request; nothing when there is no answer, which is so for every publish.
using PeerHandler = std::function<std::optional<std::string>(const PeerMessage&)>;

/// The central manager behind one node's proxy, with its APHs: keeps which APH is master, records what hosts
/// send, answers according to rules, and calls the hosts.
///
/// Threads: all operations from any thread but the peers' own.
class Manager {
 public:
  struct Options {
    std::string info_endpoint = "tcp://127.0.0.1:9004";
    std::string forwarding_endpoint = "tcp://127.0.0.1:4096";
    std::string transport_node_id;
    std::optional<std::pair<uint32_t, uint32_t>> version{{4, 2}};
    /// Number of received messages that are kept; older ones are dropped.
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

  // The APHs.  Subscribers receive the new list after each change.
  void AddAph(const std::string& id, bool master);
  /// Ends an APH.  With `keep_listed` the proxy keeps listing it, as a real proxy does for a while when one
  /// dies.
  bool RemoveAph(const std::string& id, bool keep_listed);
  /// An empty id: no APH is master.
  bool SetMaster(const std::string& id);
  /// Sends this list to the subscribers in place of the true one, until the next change.
  void PublishRaw(const ProxyInfo& info);
  std::vector<std::pair<std::string, bool>> Aphs() const;
  std::string Master() const;

  /// Sets the rule for one vertical ("" for all), separately for app-init requests and all others.
  void SetRule(const std::string& vertical, bool app_init, AnswerRule rule);

  /// Lets `handler` receive the messages of a vertical, as far as its rule is to serve them; empty: nobody.
  void SetPeer(const std::string& vertical, PeerHandler handler);

  struct SendRequest {
    std::string vertical;
    std::string aph;  // empty: the master
    std::string member;
    std::string text;  // the member's content, in text format
    std::optional<std::string> correlation_id;
    /// The type name in the unified message, if it is not that of the member.
    std::string type;
    bool with_header = true;
    bool publish = false;
    Duration timeout = std::chrono::seconds(30);
  };
  /// Calls a host.  Returns an empty text when the request was sent, otherwise what is wrong with it.
  std::string Send(const SendRequest& request, std::function<void(HostAnswer)> done);
  /// The table of VIFs.  It answers requests about VIFs as soon as it knows a logical switch.
  VifTable& vifs() { return vifs_; }

  /// What the manager received and sent.
  const MessageRecord& record() const { return record_; }
  /// Number of app-init requests of a vertical that the present master has served.
  std::map<std::string, uint64_t> served_app_inits() const;

 private:
  class Sink;

  void Receive(const Aph& aph, const std::string& vertical, const std::string& host,
               const GenericUnifiedMsg& message, bool publish, bool* app_init);
  void Answer(Aph* aph, const std::string& vertical, const std::string& host,
              const GenericUnifiedMsg& request, bool app_init, rpc::CallHandle<GenericUnifiedMsg> call);
  /// Returns false when the request is not one for the table.
  bool AnswerVif(Aph* aph, const GenericUnifiedMsg& request, const GenericUnifiedMsg& header, Duration delay,
                 rpc::CallHandle<GenericUnifiedMsg> call);
  void PublishLocked();
  PeerHandler PeerOf(const std::string& vertical) const;
  AnswerRule TakeRule(const std::string& vertical, bool app_init);

  const Options options_;
  VifTable vifs_;
  MessageRecord record_;

  mutable std::mutex mutex_;  // guards all below
  std::shared_ptr<Proxy> proxy_;
  std::map<std::string, std::unique_ptr<Aph>> aphs_;
  std::map<std::string, bool> listed_;
  std::map<std::pair<std::string, bool>, AnswerRule> rules_;
  std::map<std::string, PeerHandler> peers_;
  std::map<std::string, uint64_t> served_;
};

/// Converts the unified message of an answer to JSON.
std::string AnswerJson(const std::string& vertical, const HostAnswer& answer);

}  // namespace zem::sim
