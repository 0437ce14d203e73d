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

/// The realization's way out to the manager: each message under the record type and correlation that it has,
/// to the master, or to any other proxy that takes it.
///
/// It waits for the manager where it has to, so it runs on the realization's own threads only.
class ManagerSender final : public VifSender {
 public:
  /// `vertical` is the realization's; `mp.vifOperationTimeout` of the options limits the waits.  Both outlive
  /// the sender.
  ManagerSender(VerticalClient& vertical, OptionsStore& options) : vertical_(vertical), options_(options) {}

  /// `type` is the full message name.  False when the manager cannot be reached in time or the type is
  /// unknown.
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
