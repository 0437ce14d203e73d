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

/// What was being applied when an agent ended, with all that its end has taken from the process and the host.
struct UnfinishedApply {
  enum class Kind {
    kConfiguration,  ///< the stored message is the one to apply again
    kRemoval,        ///< the manager's removal of the node; the stored message may be gone already
    kReset,          ///< the host's own removal of everything
  };
  Kind kind = Kind::kConfiguration;
  /// The message in wire format.  Empty for a configuration of the manager's, whose file has it, and for a
  /// reset.
  std::string message;
  /// The bus header that the message came with, and whom it is for.
  std::string header;
  std::string correlation_id;
  std::string reply_to;
  /// Texts of the routers' MAC addresses before it, by switch id; empty: no router.
  std::map<std::string, std::string> routers_before;
  /// VIFs of the interfaces that the host was asked to move out of the switches.
  std::vector<std::string> leaving_vifs;
  /// For a migration that a file asks for: its request id, and the file in which its outcome is awaited.
  std::string migration_request;
  std::string migration_result_file;
};

/// The two files with what the manager last told this host.  Each holds one message in wire format and
/// nothing else, since other tools read them.
///
/// A file is replaced as a whole or not at all, and synced before that is called done.
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

  /// 0, or -1 with the file as it was.
  [[nodiscard]] int PersistHostConfigToFile(const orlane::zem::switching::HostConfigMsg& message);
  /// False with the reason in `error` (may be null) when there is no file, or one that holds something else;
  /// such a file stays.
  [[nodiscard]] bool RetrieveHostConfigMsgFromFile(orlane::zem::switching::HostConfigMsg* message,
                                                   std::string* error);
  bool HasHostConfigFile() const;

  /// Between the two the host's switches are neither those of one configuration nor those of the next: a
  /// start that finds it so has to finish.  BeginApply returns false when that cannot be written down.
  bool BeginApply(const UnfinishedApply& apply);
  void EndApply();
  /// The last that has begun, and the end of that one: nothing when another has begun since.
  uint64_t apply_number();
  void EndApply(uint64_t number);
  std::optional<UnfinishedApply> ApplyUnfinished() const;

  /// A start could not finish the stored configuration, and nobody has begun to apply one since: what is
  /// stored is not what the host has.
  void SetNotInForce() { not_in_force_ = true; }
  bool not_in_force() const { return not_in_force_; }

  [[nodiscard]] int PersistMmodeCfgToFile(const orlane::zem::switching::MaintenanceModeConfigMsg& message);
  [[nodiscard]] bool RetrieveMmodeCfgMsgFromFile(orlane::zem::switching::MaintenanceModeConfigMsg* message,
                                                 std::string* error);
  bool HasMmodeCfgFile() const;

  /// 0, also when there is no file; or -1.
  int DeleteHostConfigFile();
  int DeleteMmodeCfgFile();
  /// Both, for the removal of the transport node: -1 when one of them stays.
  int DeleteConfigFiles();

  const Paths& paths() const { return paths_; }

 private:
  bool Read(const std::string& path, google::protobuf::MessageLite* message, std::string* error);

  void EndApplyLocked();
  std::string ApplyMark() const { return paths_.host_config + ".applying"; }

  const Paths paths_;
  std::atomic<bool> not_in_force_ = false;
  uint64_t apply_number_ = 0;  // under the mutex
  std::mutex mutex_;           // one writer at a time: a removal must not meet a write half done
};

/// The host configuration's identity: SHA-256 of transport node id, id and revision, as far as the message
/// has them, in lower-case hexadecimal.  Empty when the digest cannot be had.
std::string ComputeChecksum(const orlane::zem::switching::HostConfigMsg& message);

/// The digest alone.
std::string Sha256Hex(std::string_view text);

}  // namespace zem::zema
