#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/zema/hostconfig/host_config_task_qub.h"
#include "app/zema/migration/migration_file.h"
#include "app/zema/migration_files/vm_port_request.h"
#include "framework/tasks/outcome.h"

namespace zem::zema {

/// A migration that a tool of the host describes in files: of interfaces and physical NICs, as a change of
/// the stored configuration, and of VMs, whose ports are created before the VMs arrive.  Nothing is sent to
/// the manager; the outcome is written to a file.  A request that has succeeded is not carried out again.
///
/// Threads: the host configurations' worker.
class VnicMigrationTask final : public HostConfigTaskQub {
 public:
  struct Settings {
    std::string knl_file = "/tmp/zem/mvr_vnics_migration.json";
    std::string vms_file = "/tmp/zem/vm_map.json";
    std::string result_file = "/tmp/zem/mvr_vnics_migration_result.txt";
    /// Creates the ports; returns false with the reason at the first port that cannot be created.
    std::function<Outcome(VmPortMap& ports)> create_ports;
    /// Keeps the ports for the VIFs' requests and replaces the ports kept before.
    std::function<void(std::shared_ptr<VmPortMap> ports)> keep_ports;
  };

  /// `vm_ports` and `knl_pnic` select the files to read.
  VnicMigrationTask(std::shared_ptr<HostConfigContext> context, Settings settings, bool vm_ports,
                    bool knl_pnic);

  void Run() override;

 protected:
  void SaveMigrationOutcome() override;

 private:
  bool PopulateKnlMigrationMsgFromFile(const MigrationResult& before);
  void LoadPortDataFromVmsMigrationFile(const MigrationResult& before);
  bool Load(const std::string& path, const std::string& done_id, const char* done_text, std::string* id,
            bool* processed, MigrationRequest* request);
  bool Refuse(const std::string& text);
  std::vector<std::string> Errors() const;

  const Settings settings_;
  const bool vm_ports_;
  const bool knl_pnic_;
  MigrationResult result_;
  /// How many errors, at the front, belong to the file with the VMs; empty while that file is being read.
  std::optional<size_t> of_vms_;
  bool vms_processed_ = false;
  bool knl_processed_ = false;
  bool saved_ = false;
  std::vector<std::string> refusals_;
};

}  // namespace zem::zema
