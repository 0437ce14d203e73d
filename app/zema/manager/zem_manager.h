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

/// Takes VIF messages to the manager.  False when one could not be handed over; it may take long to say so.
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
    /// Name and value of each.
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

/// Makes blocking calls of the manager's asynchronous answers about VIFs.
///
/// Each call has an answer object that its caller and the receive thread own together.  So whoever brings an
/// answer waits for nobody, however long the caller takes over sending, and touches nothing of the caller's.
///
/// Threads: the MP_ operations on port handler threads, SetResultToPendingRPC on the receive thread.
class ZemManager : public Synchronizable {
 public:
  /// These two texts, and no others, tell a failure of the road from a refusal of the manager.
  static constexpr const char* kSendFailed =
      "Failed to send VIF RPC request. Please check if the connectivity between Host and ZEM Manager is up.";
  static constexpr const char* kTimedOut =
      "RPC call to ZEM management plane timeout. Please check if the connectivity between Host and ZEM "
      "Manager is up.";

  /// All have to outlive the manager.  Calls are refused while `host` has no id, which is until this host is
  /// set up for operation; they wait for `mp.vifOperationTimeout`.
  ZemManager(VifSender& sender, HostIdentity& host, OptionsStore& options);

  /// The caller holds the monitor of `waiter`; it is free while the call waits.  What went wrong is in
  /// `out->error`.
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

  /// The first answer to a call counts; a second one, and one to a call that waits no longer, is dropped.
  void SetResultToPendingRPC(const std::string& rpc_id, std::unique_ptr<PortAttached> result);

  /// A copy of the answer.  Nothing while there is none.
  std::optional<PortAttached> GetResultOfPendingRPC(const std::string& rpc_id);

  /// Nobody waits any more: calls that wait, and those to come, end as if the manager had not answered.
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
