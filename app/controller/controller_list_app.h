#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "mpaclient/vertical/vertical_client.h"

namespace zem {
namespace controller {
struct ControllerContext;
}
}  // namespace zem

namespace zem::Tarvik {

/// Asks the manager for the list of controllers and takes its updates: the vertical
/// "ControllerMgmtVertical".
///
/// Threads: Start and Stop one after the other; the rest from any.
class ControllerListApp {
 public:
  struct Settings {
    /// `zema.controller-info`.
    std::function<bool()> enabled;
    std::shared_ptr<controller::ControllerContext> context;
    /// Called with each payload before it is processed.
    std::function<void(const VerticalRecord&)> payload_seen = [](const VerticalRecord&) {};
  };

  ControllerListApp(AsioZemProvider& provider, Settings settings);
  ~ControllerListApp();

  /// Does nothing, after a log line, when the option is off.
  void Start();
  /// No message is processed any more when this returns.
  void Stop();

  /// `correlation_id` may be empty.
  bool RequestControllerList(const std::string& correlation_id);

  /// Sends a message of this vertical.  Returns false, after a log line, when it was not sent.
  bool SendMsg(const std::string& type, std::string data, const std::string& correlation_id,
               std::string* message_id);

  /// Writes the transport node's id into the controllers' file.
  void UpdateTnUuidInFile(const std::string& id);

  /// Makes a task of a controller list; other payloads are logged and dropped.  `key` names the message in
  /// the log.
  void ProcessReceiveMessages(const std::string& key, const std::string& type, std::string_view payload,
                              const std::string& correlation_id, const std::string& reply_to);

 private:
  void TakePayload(const VerticalRecord& record);

  const Settings settings_;
  VerticalClient vertical_;
};

}  // namespace zem::Tarvik
