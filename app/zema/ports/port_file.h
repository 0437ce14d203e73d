#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The files beside a VM's configuration that hold what its ports are: "<VM's
/// directory>/.dvsData/<switch>/<port>".
namespace zem::zema {

/// The text before the last "/"; nothing for a path without "/", which is that of no VM.
std::optional<std::string> VmDirectoryOf(const std::string& gcf_path);

/// The directory of the VM that a port file belongs to: the text before "/.dvsData".  Nothing for another
/// path.
std::optional<std::string> VmDirectoryOfPortFile(const std::string& path);

/// Nothing when `dvs` or `port` cannot be the name of a file.
std::optional<std::string> PortFilePath(const std::string& vm_directory, const std::string& dvs,
                                        const std::string& port);

/// Makes what is missing of the directories above `path`.
[[nodiscard]] bool MakePortFileDirectories(const std::string& path);

/// Writes the data, filled up with zeros to a multiple of 512 bytes, in place of what was there, which
/// stays when that fails.  0; -1 when the file does not open, -2 when it cannot be emptied, -3 without
/// memory, -4 when it is not written.
int WritePortFile(const std::string& path, std::string_view data);

/// 0 and the whole file, or an errno.  Nothing beyond 1 MiB is read: EFBIG.
int ReadPortFile(const std::string& path, std::string* data);

/// A port file of a VM.
struct PortFileEntry {
  std::string dvs;
  std::string port;
  std::string path;
};

/// In order of switches and ports; what cannot be read is logged and left out.
std::vector<PortFileEntry> PortFilesOf(const std::string& vm_directory);

/// Removes one file; false when it was there and still is.
[[nodiscard]] bool RemovePortFile(const std::string& path);

/// Removes the files of all ports of the VM that this one is of.  False when they cannot be removed, or the
/// path is none of a port file.
[[nodiscard]] bool DeletePortFile(const std::string& path);

}  // namespace zem::zema
