#pragma once

#include <mutex>
#include <string>
#include <string_view>

namespace google::protobuf {
class MessageLite;
}
namespace orlane::zem::switching {
class HostConfigMsg;
class MaintenanceModeConfigMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

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
  /// start that finds it so has to apply the stored one again.  False when that cannot be written down.
  bool BeginApply();
  void EndApply();
  bool ApplyUnfinished() const;

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

  std::string ApplyMark() const { return paths_.host_config + ".applying"; }

  const Paths paths_;
  std::mutex mutex_;  // one writer at a time: a removal must not meet a write half done
};

/// The host configuration's identity: SHA-256 of transport node id, id and revision, as far as the message
/// has them, in lower-case hexadecimal.  Empty when the digest cannot be had.
std::string ComputeChecksum(const orlane::zem::switching::HostConfigMsg& message);

/// The digest alone.
std::string Sha256Hex(std::string_view text);

}  // namespace zem::zema
