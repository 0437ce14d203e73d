#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace google::protobuf {
class MessageLite;
}
namespace orlane::zem::switching {
class HostConfigMsg;
class MaintenanceModeConfigMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

/// The application that was under way when an agent ended, with everything that the end removed from the
/// process and the host.
struct UnfinishedApply {
  enum class Kind {
    kConfiguration,  ///< the stored message is the one to apply again
    kRemoval,        ///< the manager's removal of the node; the stored message may be gone already
    kReset,          ///< the host's own removal of everything
  };
  Kind kind = Kind::kConfiguration;
  /// The message in wire format.  Empty for a configuration of the manager, which is in its own file, and for
  /// a reset.
  std::string message;
  /// The bus header of the message, and the recipient of the answer.
  std::string header;
  std::string correlation_id;
  std::string reply_to;
  /// The routers' MAC addresses before the application, as texts by switch id; empty means no router.
  std::map<std::string, std::string> routers_before;
  /// VIFs of the interfaces that the host was asked to move out of the switches.
  std::vector<std::string> leaving_vifs;
  /// For a migration requested by a file: its request id, and the file to which its outcome is written.
  std::string migration_request;
  std::string migration_result_file;
};

/// The two files that hold the latest configuration and the latest maintenance mode of the manager.  Each
/// holds one message in wire format and nothing else, since other tools read them.
///
/// A file is replaced as a whole or not at all, and synced before the operation succeeds.
///
/// Threads: all operations from any thread.
class ConfigFiles {
 public:
  struct Paths {
    std::string host_config = "/etc/orlane/zema/host_config.bin";
    std::string mmode = "/etc/orlane/zema/host_config_mmode.bin";
  };

  ConfigFiles() : ConfigFiles(Paths()) {}
  explicit ConfigFiles(Paths paths) : paths_(std::move(paths)) {}

  /// Returns 0, or -1 with the file unchanged.
  [[nodiscard]] int PersistHostConfigToFile(const orlane::zem::switching::HostConfigMsg& message);
  /// Returns false and sets `error` (may be null) when there is no file or the file has other content; such a
  /// file is kept.
  [[nodiscard]] bool RetrieveHostConfigMsgFromFile(orlane::zem::switching::HostConfigMsg* message,
                                                   std::string* error);
  bool HasHostConfigFile() const;

  /// Mark the start and the end of an application.  In between, the host's switches match neither the
  /// previous configuration nor the next one, and a start that finds the mark has to finish the application.
  /// BeginApply returns false when the mark cannot be written.
  bool BeginApply(const UnfinishedApply& apply);
  void EndApply();
  /// The number of the application that began last.  Ending an application does nothing when another one has
  /// begun since.
  uint64_t apply_number();
  void EndApply(uint64_t number);
  std::optional<UnfinishedApply> ApplyUnfinished() const;

  /// Called when a start could not finish the stored configuration.  Until the next application begins, the
  /// host does not have what is stored.
  void SetNotInForce() { not_in_force_ = true; }
  bool not_in_force() const { return not_in_force_; }

  [[nodiscard]] int PersistMmodeCfgToFile(const orlane::zem::switching::MaintenanceModeConfigMsg& message);
  [[nodiscard]] bool RetrieveMmodeCfgMsgFromFile(orlane::zem::switching::MaintenanceModeConfigMsg* message,
                                                 std::string* error);
  bool HasMmodeCfgFile() const;

  /// Returns 0, also when there is no file, or -1.
  int DeleteHostConfigFile();
  int DeleteMmodeCfgFile();
  /// Deletes both files when the transport node is removed; returns -1 when one of them cannot be deleted.
  int DeleteConfigFiles();

  const Paths& paths() const { return paths_; }

 private:
  bool Read(const std::string& path, google::protobuf::MessageLite* message, std::string* error);

  void EndApplyLocked();
  std::string ApplyMark() const { return paths_.host_config + ".applying"; }

  const Paths paths_;
  std::atomic<bool> not_in_force_ = false;
  uint64_t apply_number_ = 0;  // under the mutex
  std::mutex mutex_;           // one writer at a time: a removal must not run during a write
};

/// Identifies a host configuration: the SHA-256, in lower-case hexadecimal, of those of transport node id, id
/// and revision that the message has.  Empty when the digest cannot be computed.
std::string ComputeChecksum(const orlane::zem::switching::HostConfigMsg& message);

/// The SHA-256 of `text`, in lower-case hexadecimal.
std::string Sha256Hex(std::string_view text);

}  // namespace zem::zema
