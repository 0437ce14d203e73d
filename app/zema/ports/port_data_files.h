#pragma once

#include <optional>
#include <string>

namespace zem {
class HostIdentity;
}  // namespace zem

namespace zem::zema {

class PortProperties;
class SwitchLibrary;
struct PortLocation;

/// The files in which ports are saved beside their VMs.  Each carries the id of the host that saved it last.
///
/// Threads: all operations from any thread; files and the library block, so none from a provider's.
/// Sequences of changes to one port are kept apart by their callers.
/// Ownership: holds its arguments by reference.
class PortDataFiles {
 public:
  PortDataFiles(SwitchLibrary& library, PortProperties& properties, HostIdentity& host)
      : library_(library), properties_(properties), host_(host) {}

  /// Writes the port's persistent state, without the property `without` if one is named, and this host's id
  /// into the file.  Returns 0; -1 when `path` is empty or the state cannot be read, -2 when the file cannot
  /// be written.
  int SavePortDataFile(const std::string& path, const std::string& dvs, const std::string& port,
                       const char* without = nullptr);
  /// Writes the file of a port that has none at `path` yet.  Returns false after a failure, which is logged.
  [[nodiscard]] bool SaveNew(const std::string& path, const std::string& dvs, const std::string& port);
  /// Saves the port in the file that it has, `without` as above.  Does nothing for a port without a file, or
  /// whose file is another host's.  Returns false after a failure, which is logged.
  [[nodiscard]] bool SaveAgain(const char* operation, const std::string& dvs, const std::string& port,
                               const char* without = nullptr);

  /// Changes one property in the file of a port that need not be on a switch; a null `value` removes it.
  /// Returns false after a failure, which is logged.
  [[nodiscard]] bool UpdateExtraConfigInPortDataFile(const std::string& path, const std::string& key,
                                                     const std::string* value);

  /// Takes over the port's file when another host saved it last.  Called when the port's VM is on this host:
  /// otherwise the other host would keep writing the file and this one would not.
  void TakeFile(const PortLocation& at);

  /// The path of the port's file; empty when the port has none.
  std::string PersistPath(const std::string& dvs, const std::string& port) const;
  /// Returns a property as it stands in the port's file, or nothing.
  std::optional<std::string> FileText(const std::string& dvs, const std::string& port,
                                      const char* property) const;

 private:
  bool IsOfAnotherHost(const std::string& path, const std::string& dvs, const std::string& port) const;

  SwitchLibrary& library_;
  PortProperties& properties_;
  HostIdentity& host_;
};

}  // namespace zem::zema
