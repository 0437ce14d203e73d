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
/// The configuration is stored before the host is first changed: if the daemon ends after that, the manager
/// sees from the checksum which configuration was requested last and repairs the rest.  Each failure from
/// then on adds its text and raises the code; the answer is always sent.
///
/// Threads: one, which is not a provider's.
class HostConfigTaskQub : public HostConfigTask {
 public:
  /// Whether the message is also written to the store.
  enum class InStore { kNo, kYes };

  /// `sender` may be null, in which case no answer is sent.  `header` is the bus header of the message; when
  /// the message did not come from the manager, the header is empty and the message is not written to the
  /// store.
  HostConfigTaskQub(std::shared_ptr<HostConfigContext> context, MpaMessageSender* sender,
                    std::string correlation_id, std::string reply_to, HostConfigMsg message, InStore in_store,
                    std::string header);
  ~HostConfigTaskQub() override;

  void Run() override;
  void ApplyHostConfig(bool upgrade, bool reset) override;
  HostConfigMsg BuildReply() override;

  /// Applies again a configuration that an earlier process did not finish.  Returns false when that fails and
  /// has to be tried again.
  [[nodiscard]] bool Finish(const UnfinishedApply& unfinished);

  uint32_t error_code() const { return errors_.code(); }

 protected:
  HostConfigContext& context() { return *context_; }

  /// Saves the outcome of a migration that was requested by file.  Called while the mark of the application
  /// exists, so that whenever the agent ends, either the mark or the outcome is there.
  virtual void SaveMigrationOutcome();
  /// Empty when there were no errors.
  std::vector<std::string> ErrorTexts() const;

  /// The ids of the migration requests; both are empty when no file requested the configuration.
  std::string migration_request_;
  std::string migration_result_file_;

 private:
  class RemovalEnd;
  /// How far the application got with the switches.
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
  /// The message as it was received, in the store's form; message_ itself is converted to the host's form.
  std::unique_ptr<orlane::zem::covedb::RealizedHostConfigMsg> for_store_;
  Thread monitor_{true, nullptr, 0};
  RealizationOptions options_;
  KnlMigrationMap migration_map_;
  LeavingSwitches::RouterMacs routers_before_;
  /// VIFs that may have left their switches before an earlier process ended.
  std::vector<std::string> left_before_;
  UnfinishedApply mark_;
  std::shared_ptr<RemovalEnd> removal_end_;
  VtepOutcome vteps_;
  bool hot_swap_ = false;
  bool finishing_ = false;
};

/// Removes the host's switches at the host's own request, by applying an empty host configuration.  Returns
/// an empty text on success, otherwise the error.
std::string RemoveHostSwitches(const std::shared_ptr<HostConfigContext>& context);

/// Finishes the configuration, removal or reset that was interrupted when the agent ended: neither the host
/// nor the manager, which sees it stored, would repair that.  A failure is retried with growing delays until
/// it succeeds or the manager sends a newer configuration.  Does not throw.
void FinishHostConfig(const std::shared_ptr<HostConfigContext>& context);

/// Restores the cached data that a restart needs from the configuration in force: the host's id, the switches
/// whose health is published, and whether the manager wants the node down.
void UpdateCacheMap(HostConfigContext& context);

}  // namespace zem::zema
