#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "app/zema/manager/port_attached.h"
#include "framework/tasks/outcome.h"
#include "framework/tasks/synchronizable.h"
#include "framework/tasks/thread.h"

namespace zem {
class HostIdentity;
}  // namespace zem

namespace zem::zema {

class OptionsStore;

/// Sends VIF messages to the manager.  Each operation returns false when the message could not be handed
/// over, which may take long.
class VifSender {
 public:
  virtual ~VifSender() = default;

  struct Attachment {
    bool attach;
    std::string rpc_id;
    std::string vif_id;
    std::string switch_id;
    std::string port_id;
    std::string host_id;
    std::string gcf_path;
  };
  virtual bool SendVIFAttachmentInfo(const Attachment& attachment, std::string* message_id) = 0;

  struct Update {
    std::string rpc_id;
    std::string vif_id;
    std::string switch_id;
    std::string port_id;
    std::string host_id;
    /// Name and value of each property.
    std::list<std::pair<std::string, std::string>> site_configs;
  };
  virtual bool SendVIFUpdate(const Update& update) = 0;

  /// The outcome of a restoration that the manager asked for.
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
  virtual bool SendVIFRestoreResponse(const RestoreResponse& response) = 0;
};

/// Turns the manager's asynchronous answers about VIFs into blocking calls.
///
/// Each call has an answer object, which its caller and the receive thread share.  So the receive thread
/// never waits for a caller that is still sending, and never touches memory of the caller.
///
/// Threads: the MP_ operations on port handler threads, SetResultToPendingRPC on the receive thread.
class ZemManager : public Synchronizable {
 public:
  /// Only these two texts mean that the manager could not be reached; any other error is a refusal by the
  /// manager.
  static constexpr const char* kSendFailed =
      "Failed to send VIF RPC request. Please check if the connectivity between Host and ZEM Manager is up.";
  static constexpr const char* kTimedOut =
      "RPC call to ZEM management plane timeout. Please check if the connectivity between Host and ZEM "
      "Manager is up.";

  /// All have to outlive the manager.  Calls are refused while `host` has no id, which is until this host is
  /// set up for operation; they wait for `mp.vifOperationTimeout`.
  ZemManager(VifSender& sender, HostIdentity& host, OptionsStore& options);

  /// The caller holds the monitor of `waiter`, which is released while the call waits.  A failure is reported
  /// in `out->error`.
  void MP_AddVnicAttachment(const std::string& op_id, const std::string& vif_id, const std::string& switch_id,
                            const std::string& port_id_hint, const std::string& gcf_path, Thread* waiter,
                            bool wait, PortAttached* out);
  void MP_RemoveVnicAttachment(const std::string& op_id, const std::string& vif_id,
                               const std::string& switch_id, const std::string& port_id,
                               const std::string& gcf_path, Thread* waiter, bool wait, PortAttached* out);
  /// Does not wait for an answer.
  Outcome MP_UpdateVnicAttachment(const std::string& op_id, const std::string& vif_id,
                                  const std::string& switch_id, const std::string& port_id,
                                  std::list<std::pair<std::string, std::string>> site_configs);

  /// Delivers an answer.  Only the first answer to a call counts; a second one is dropped, and so is an
  /// answer to a call that no longer waits.
  void SetResultToPendingRPC(const std::string& rpc_id, std::unique_ptr<PortAttached> result);

  /// Returns a copy of the answer, or nothing while there is none.
  std::optional<PortAttached> GetResultOfPendingRPC(const std::string& rpc_id);

  /// Ends all waits: calls that wait, and those to come, end as if the manager had not answered.
  void EndWaits();

  void SetMaintenanceMode(bool on);
  bool InMaintenanceMode();

  size_t pending();

 private:
  struct Answer;
  struct Texts;

  bool WaitForResult(const std::string& rpc_id, Thread* waiter, int seconds, PortAttached* out);
  std::shared_ptr<Answer> Find(const std::string& rpc_id);
  std::string RegisterRpc(const std::string& op_id, bool wait);
  void Forget(const std::string& rpc_id);
  void Call(const Texts& texts, VifSender::Attachment attachment, const std::string& op_id, Thread* waiter,
            bool wait, PortAttached* out);

  VifSender& sender_;
  HostIdentity& host_;
  OptionsStore& options_;
  // The object's own lock guards what follows.
  bool maintenance_mode_ = false;
  bool ended_ = false;
  std::map<std::string, std::shared_ptr<Answer>> pending_;
};

}  // namespace zem::zema
