#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "app/ctxteng/introspection/am_tables.h"
#include "app/ctxteng/introspection/config_status.h"
#include "app/ctxteng/introspection/realization_errors.h"

namespace orlane::zem::covedb {
class MonitorUpdateMsg;
class RuleMsg;
class TypedObjectMsg;
}  // namespace orlane::zem::covedb
namespace orlane::zem::ouvi {
class MuxConfigMsg;
}

namespace zem::rpc {
class Status;
}
namespace zem::covedb {
class CoveDbClientInterface;
}

namespace Ctxt {

class MuxPusher;

/// Tells the multiplexer by which solution each VM is protected, as the rules on the groups of the VMs say.
///
/// The store begins each connection with all objects.  They fill new tables, and at the first barrier the
/// multiplexer gets what differs from before; VMs that lost their rule meanwhile are among that.
///
/// Threads: `Start` by the owner; the rest from any thread.  The store's callbacks change tables and post;
/// the pusher's thread pushes.
class AMConfig : public std::enable_shared_from_this<AMConfig> {
 public:
  AMConfig(std::shared_ptr<MuxPusher> pusher, std::shared_ptr<ConfigHealth> health);
  virtual ~AMConfig();

  /// `store` may be null.
  void Start(std::shared_ptr<zem::covedb::CoveDbClientInterface> store);
  /// Reads the store anew and pushes the whole configuration.
  void HandleMuxReconnect();

  /// Pushes now, reports the status, and notes a refusal as an error.  Throws CtxtProtobufError.
  virtual uint32_t PushToMux(orlane::zem::ouvi::MuxConfigMsg* config);
  virtual void WriteErrors() { errors_.WriteErrors(); }
  /// A section of rules came, changed or went.
  virtual void OnRuleSection(const std::string& section_id, uint64_t priority, bool deleted);

 private:
  struct Dispatch;
  using Update = orlane::zem::covedb::MonitorUpdateMsg;

  void TakeUpdate(const Update& update);
  void TakeBarrier();
  void TakeChannel(bool up);
  void TakeObjects(const std::list<orlane::zem::covedb::TypedObjectMsg>& objects,
                   const zem::rpc::Status& status);
  void Refill(const std::list<orlane::zem::covedb::TypedObjectMsg>& objects);

  void OnVmGroups(const Update& update);
  void OnContextProfile(const Update& update);
  void OnRule(const Update& update);
  void OnSection(const Update& update);
  void OnBarrier(const Update& update);
  VmChanges ReplaceRule(const orlane::zem::covedb::RuleMsg* old, const orlane::zem::covedb::RuleMsg* now);
  // With the mutex: what the store had told before it begins anew, until the new state is complete.
  void KeepBefore();
  void ForgetBefore();
  VmChanges Everything() const;
  void AskForAll();

  // With the mutex: adds the entries of `changes` to `config`.
  void AddVms(const VmChanges& changes, orlane::zem::ouvi::MuxConfigMsg* config) const;
  // With the mutex: posts a push of `changes`, unless there are none or the store is still sending all it
  // has.
  void Post(const VmChanges& changes);
  void PostConfig(const orlane::zem::ouvi::MuxConfigMsg& config);
  void PostBarrier();
  void Fail(ConfigStatus status, const std::string& entity);

  const std::shared_ptr<MuxPusher> pusher_;
  const std::shared_ptr<ConfigHealth> health_;
  RealizationErrors errors_;
  std::shared_ptr<zem::covedb::CoveDbClientInterface> store_;

  std::mutex mutex_;  // guards all below; nothing that waits is called under it
  AmTables tables_;
  VmChanges before_;  // the effective rules before the store began to send all it has
  AmTables tables_before_;
  bool replaying_ = true;
  std::optional<uint64_t> barrier_;  // the last one
  bool sent_again_ = false;          // the store has told what it had told already
  bool channel_up_ = false;
};

}  // namespace Ctxt
