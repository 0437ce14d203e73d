#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Port files: each holds the persistent state of one port of a VM, beside the VM's configuration file:
/// "<VM's directory>/.dvsData/<switch>/<port>".
namespace zem::zema {

/// Returns the text before the last "/", or nothing for a path without "/", which belongs to no VM.
std::optional<std::string> VmDirectoryOf(const std::string& gcf_path);

/// Returns the directory of the VM that a port file belongs to, which is the text before "/.dvsData", or
/// nothing when the path is not a port file's.
std::optional<std::string> VmDirectoryOfPortFile(const std::string& path);

/// Returns nothing when `dvs` or `port` cannot be a file name.
std::optional<std::string> PortFilePath(const std::string& vm_directory, const std::string& dvs,
                                        const std::string& port);

/// Creates the missing directories above `path`.
[[nodiscard]] bool MakePortFileDirectories(const std::string& path);

/// Replaces the file with the data, padded with zeros to a multiple of 512 bytes.  After a failure the old
/// file is unchanged.  Returns 0; -1 when the file cannot be opened, -2 when it cannot be truncated, -3 when
/// memory is short, -4 when it cannot be written.
int WritePortFile(const std::string& path, std::string_view data);

/// Reads the whole file.  Returns 0 or an errno; a file larger than 1 MiB gives EFBIG.
int ReadPortFile(const std::string& path, std::string* data);

/// A port file of a VM.
struct PortFileEntry {
  std::string dvs;
  std::string port;
  std::string path;
};

/// Returns the port files of a VM, sorted by switch and port.  A directory that cannot be read is logged and
/// left out.
std::vector<PortFileEntry> PortFilesOf(const std::string& vm_directory);

/// Removes one port file.  Returns false, with a log line, when the file exists and cannot be removed.
[[nodiscard]] bool RemovePortFile(const std::string& path);

/// Removes the files of all ports of the VM to which the port file `path` belongs.  Returns false when they
/// cannot be removed, or when `path` is not the path of a port file.
[[nodiscard]] bool DeletePortFile(const std::string& path);

}  // namespace zem::zema
