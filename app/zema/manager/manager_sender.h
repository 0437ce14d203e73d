#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "app/zema/manager/zem_manager.h"
#include "mpaclient/vertical/vertical_client.h"

namespace orlane::zem::switching {
class VifMsg;
}

namespace zem::zema {

/// Sends the realization's messages to the manager, each with its record type and correlation id, to the
/// master proxy or to any other proxy that takes it.
///
/// Sending may wait for the manager, so it is called only on the realization's own threads.
class ManagerSender final : public VifSender {
 public:
  /// `vertical` is the realization's; `mp.vifOperationTimeout` of the options limits the waits.  Both outlive
  /// the sender.
  ManagerSender(VerticalClient& vertical, OptionsStore& options) : vertical_(vertical), options_(options) {}

  /// `type` is the full message name.  Returns false when the manager cannot be reached in time or the type
  /// is unknown.
  [[nodiscard]] bool SendMsg(const std::string& type, std::string_view data,
                             const std::string& correlation_id, const std::string& reply_to,
                             std::string* message_id);

  bool SendVIFAttachmentInfo(const Attachment& attachment, std::string* message_id) override;
  bool SendVIFUpdate(const Update& update) override;

  /// Makes up to four tries, which may take a minute.
  bool SendVIFRestoreResponse(const RestoreResponse& response) override;

 private:
  bool SendVif(const orlane::zem::switching::VifMsg& message, std::string* message_id);
  bool WaitForManager(int limit_s) const;
  bool SendMsgToAph(const VerticalClient::Outgoing& message, int limit_s) const;
  bool Pause(int seconds) const;

  VerticalClient& vertical_;
  OptionsStore& options_;
};

}  // namespace zem::zema
