#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "app/zema/manager/zem_manager.h"
#include "app/zema/migration/migration_record.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/proxy/lum_commands.h"
#include "app/zema/state/health_record.h"
#include "app/zema/state/realization_options.h"
#include "app/zema/vifqueue/handler_pool.h"
#include "app/zema/vifqueue/resync_state.h"
#include "app/zema/vifqueue/vif_port_handler.h"
#include "bench/vifs/instant_manager.h"
#include "bench/vifs/world.h"
#include "framework/node/host_identity.h"

namespace zem::bench {

/// The agent from the queue of the host's requests to their replies: pool, handler, blocking manager calls,
/// port operations.  Log lines are formatted and discarded.
///
/// Threads: one owner.  Errors: std::runtime_error.
class AgentSide {
 public:
  explicit AgentSide(World& world);
  ~AgentSide();

  /// Each returns the seconds of every operation from queueing to reply, with `outstanding` operations at a
  /// time.
  std::vector<double> Attach(const std::vector<Vif>& vifs, size_t outstanding);
  /// The two halves of a move to the next logical switch: the attach there, and the detach from the first.
  std::vector<double> AttachNext(const std::vector<Vif>& vifs, size_t outstanding);
  std::vector<double> DetachFirst(const std::vector<Vif>& vifs, size_t outstanding);

  zema::PortOpsManager& ports() { return ports_; }
  size_t threads() { return pool_.load().handlers; }

 private:
  class NoHost final : public zema::LumCommands {
   public:
    int InvokeCommand(const std::string&, const std::string&, std::string*) override { return kFailed; }
    int InvokeRPC(zema::LumOperation, std::string_view, std::string*) override { return kRpcSocketFailure; }
  };
  class NoSwitches final : public zema::HealthPublisher {
   public:
    Outcome SetProperty(const std::string&, const std::string&, const void*, size_t, uint32_t) override {
      return Outcome::Done();
    }
    Outcome RemoveProperty(const std::string&, const std::string&) override { return Outcome::Done(); }
    bool SecurityOnly() override { return false; }
  };
  class Sender final : public zema::VifSender {
   public:
    explicit Sender(AgentSide& side) : side_(side) {}
    bool SendVIFAttachmentInfo(const Attachment& attachment, std::string*) override {
      side_.instant_.Ask(attachment.attach, attachment.rpc_id, attachment.vif_id, attachment.switch_id);
      return true;
    }
    bool SendVIFUpdate(const Update&) override { return true; }
    bool SendVIFRestoreResponse(const RestoreResponse&) override { return true; }

   private:
    AgentSide& side_;
  };

  std::vector<double> Run(int32_t op_code, const char* ls, const std::vector<Vif>& vifs, size_t outstanding);
  void Queue(size_t index);
  void Replied(const zema::VifRequest& request);

  NoHost host_;
  HostIdentity identity_;
  /// Port files are written without a host's id, as the peer writes them.
  HostIdentity nobody_;
  zema::OptionsStore options_;
  NoSwitches no_switches_;
  zema::HealthRecord health_{no_switches_, false};
  zema::PortOpsManager ports_;
  Sender sender_;
  zema::ZemManager manager_;
  zema::MigrationRecord migration_;
  zema::ResyncState resync_;
  Synchronizable port_lock_;
  StopSignal ending_;
  zema::VifPortHandler handler_;
  InstantManager instant_;

  std::mutex mutex_;  // guards what follows
  std::condition_variable done_;
  const std::vector<Vif>* vifs_ = nullptr;
  int32_t op_code_ = 0;
  const char* ls_ = nullptr;
  std::vector<double> begun_;
  std::vector<double> took_;
  size_t queued_ = 0;
  size_t replied_ = 0;
  std::string failure_;

  zema::HandlerPool pool_;  // destroyed first
};

}  // namespace zem::bench
