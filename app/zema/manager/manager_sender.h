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
  struct Settings {
    /// The realization's vertical.
    VerticalClient* vertical;
    /// `mp.vifOperationTimeout`, in seconds.
    std::function<int()> vif_operation_timeout;
    std::function<bool()> shutting_down = [] { return false; };
  };

  explicit ManagerSender(Settings settings);

  /// `type` is the full message name.  False when the manager cannot be reached in time or the type is
  /// unknown.
  [[nodiscard]] bool SendMsg(const std::string& type, std::string_view data,
                             const std::string& correlation_id, const std::string& reply_to,
                             std::string* message_id);

  bool SendVIFAttachmentInfo(const Attachment& attachment, std::string* message_id) override;
  bool SendVIFUpdate(const Update& update) override;

  struct RestoreResponse {
    std::string message_id;
    std::string vif_id;
    std::string switch_id;
    std::string port_id;
    std::string host_id;
    std::string state;
    std::string error;
    std::string gcf_path;
  };
  /// Up to four tries.
  bool SendVIFRestoreResponse(const RestoreResponse& response);

 private:
  bool SendVif(const orlane::zem::switching::VifMsg& message, std::string* message_id);
  bool WaitForManager(int limit_s) const;
  bool SendMsgToAph(const VerticalClient::Outgoing& message, int limit_s) const;
  bool Pause(int seconds) const;

  const Settings settings_;
};

}  // namespace zem::zema
