#pragma once

#include <memory>
#include <string>
#include <vector>

#include "app/zema/covedb/config_files.h"
#include "app/zema/endpoint/vtep_application.h"
#include "app/zema/hostconfig/host_config_task.h"
#include "app/zema/hostconfig/leaving_switches.h"
#include "app/zema/hostswitch/dvs_config_info.h"
#include "app/zema/hostswitch/stateless_host.h"
#include "app/zema/migration/migration_message.h"
#include "app/zema/proxy/switch_record.h"
#include "app/zema/state/realization_options.h"
#include "framework/tasks/thread.h"

namespace orlane::zem::covedb {
class RealizedHostConfigMsg;
}  // namespace orlane::zem::covedb

namespace zem::zema {

struct HostConfigContext;
class InterfaceMigration;

/// A host configuration on a hypervisor.
///
/// The configuration is stored before the first change of the host: what ends the daemon after that is healed
/// by the manager, which sees by the checksum what was asked last.  What fails from then on adds its text and
/// raises the code; the answer always goes out.
///
/// Threads: one, which is not a provider's.
class HostConfigTaskQub : public HostConfigTask {
 public:
  /// Whether the store gets the message too.
  enum class InStore { kNo, kYes };

  /// `sender` may be null: nobody is answered then.  `header` is the bus header that the message came with;
  /// empty, and the message not for the store, when it did not come from the manager.
  HostConfigTaskQub(std::shared_ptr<HostConfigContext> context, MpaMessageSender* sender,
                    std::string correlation_id, std::string reply_to, HostConfigMsg message, InStore in_store,
                    std::string header);
  ~HostConfigTaskQub() override;

  void Run() override;
  void ApplyHostConfig(bool upgrade, bool reset) override;
  HostConfigMsg BuildReply() override;

  /// Applies again what an earlier process did not finish.  False when it fails: it is still to be finished.
  [[nodiscard]] bool Finish(const UnfinishedApply& unfinished);

  uint32_t error_code() const { return errors_.code(); }

 protected:
  HostConfigContext& context() { return *context_; }

  /// Writes down what a migration that a file asks for has come to: while the mark of the application is
  /// there, so that whatever ends the agent leaves one of the two.
  virtual void SaveMigrationOutcome();
  /// None when all went well.
  std::vector<std::string> ErrorTexts() const;

  /// Both empty for any other configuration.
  std::string migration_request_;
  std::string migration_result_file_;

 private:
  class RemovalEnd;
  /// How far the way to the switches went.
  enum class Switches { kConfigured, kFailed, kNotReached };

  void TakeHealth();
  bool PreCheck(bool first, bool upgrade, bool reset);
  void CreateGuestLaneInterface();
  UnfinishedApply Mark(bool reset) const;
  void Persist();
  void RemoveNode();
  void EndApply();
  Switches ConfigureSwitches(bool upgrade, bool reset, bool extra_config);
  bool ConfigureDvses(bool upgrade, InterfaceMigration& migration, const StatelessHost& stateless);
  bool ReadSwitches(bool reset, std::vector<HostDvs>* switches);
  void ForgiveRoutersOfLeft(const std::vector<HostDvs>& before);
  void ScheduleFollowUps();
  bool IsRemoval() const { return message_.revision() == kRemovalRevision; }

  static constexpr const char* kRemovalRevision = "-1";

  const std::shared_ptr<HostConfigContext> context_;
  const InStore in_store_;
  const std::string header_;
  /// The message as it came, in the store's form: the message itself becomes the host's.
  std::unique_ptr<orlane::zem::covedb::RealizedHostConfigMsg> for_store_;
  Thread monitor_{true, nullptr, 0};
  RealizationOptions options_;
  KnlMigrationMap migration_map_;
  LeavingSwitches::RouterMacs routers_before_;
  /// VIFs that left their switches, perhaps, when an earlier process ended.
  std::vector<std::string> left_before_;
  UnfinishedApply mark_;
  std::shared_ptr<RemovalEnd> removal_end_;
  VtepOutcome vteps_;
  bool hot_swap_ = false;
  bool finishing_ = false;
};

/// Empty when the host's switches are gone, else what went wrong: a host configuration without anything, on
/// the host's own demand.
std::string RemoveHostSwitches(const std::shared_ptr<HostConfigContext>& context);

/// Finishes the configuration, removal or reset in whose middle the agent ended: neither the host nor the
/// manager, who sees it stored, would heal that.  What fails is tried again later, with growing delays, until
/// it holds or the manager sends something newer.  Throws nothing.
void FinishHostConfig(const std::shared_ptr<HostConfigContext>& context);

/// What a restart needs of the configuration in force: the host's id, the switches whose health is published,
/// and whether the manager wants the node down.
void UpdateCacheMap(HostConfigContext& context);

}  // namespace zem::zema
