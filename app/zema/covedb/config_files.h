#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "app/zema/covedb/apply_mark.h"

namespace google::protobuf {
class MessageLite;
}
namespace orlane::zem::switching {
class HostConfigMsg;
class MaintenanceModeConfigMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

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
  explicit ConfigFiles(Paths paths)
      : paths_(std::move(paths)), apply_mark_(paths_.host_config + ".applying") {}

  /// Returns 0, or -1 with the file unchanged.
  [[nodiscard]] int PersistHostConfigToFile(const orlane::zem::switching::HostConfigMsg& message);
  /// Returns false and sets `error` (may be null) when there is no file or the file has other content; such a
  /// file is kept.
  [[nodiscard]] bool RetrieveHostConfigMsgFromFile(orlane::zem::switching::HostConfigMsg* message,
                                                   std::string* error);
  bool HasHostConfigFile() const;

  /// The mark of an application under way, kept beside the configuration's file.
  ApplyMark& apply_mark() { return apply_mark_; }
  const ApplyMark& apply_mark() const { return apply_mark_; }

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

  const Paths paths_;
  ApplyMark apply_mark_;
  std::mutex mutex_;  // one writer at a time: a removal must not run during a write
};

/// Identifies a host configuration: the SHA-256, in lower-case hexadecimal, of those of transport node id, id
/// and revision that the message has.  Empty when the digest cannot be computed.
std::string ComputeChecksum(const orlane::zem::switching::HostConfigMsg& message);

/// The SHA-256 of `text`, in lower-case hexadecimal.
std::string Sha256Hex(std::string_view text);

}  // namespace zem::zema
