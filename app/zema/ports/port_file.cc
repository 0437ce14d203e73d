#include "app/zema/ports/port_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

#include "framework/log/log.h"
#include "platform/core/random.h"
#include "platform/core/unique_fd.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr std::string_view kFolder = "/.dvsData";
constexpr size_t kBlock = 512;
constexpr size_t kLargest = 1024 * 1024;
constexpr mode_t kFileMode = 0600;
constexpr mode_t kDirectoryMode = 0755;

bool IsFileName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

// Returns the sorted names of the subdirectories, or of the regular files, of a directory.
std::vector<std::string> read_directory(const std::string& directory, bool directories) {
  std::vector<std::string> names;
  try {
    std::error_code error;
    std::filesystem::directory_iterator entries(directory, error);
    if (error) {
      if (error != std::errc::no_such_file_or_directory) {
        ZLOG_ERROR("OPS60012", "Failed to read directory [%s]: %s", directory.c_str(),
                   error.message().c_str());
      }
      return names;
    }
    for (const auto& entry : entries) {
      if (directories ? entry.is_directory() : entry.is_regular_file()) {
        names.push_back(entry.path().filename().string());
      }
    }
  } catch (const std::exception&) {
    ZLOG_ERROR("OPS60012", "PortOpsManager::read_directory caught exception");
  }
  std::sort(names.begin(), names.end());
  return names;
}

// A half-written file could not bring its port back after a crash, so the old file stays until the new one is
// complete.  The draft is one level above the port files, where it is not taken for one.
std::string DraftOf(const std::string& path) {
  const size_t switch_end = path.rfind('/');
  const size_t folder_end =
      switch_end == std::string::npos || switch_end == 0 ? switch_end : path.rfind('/', switch_end - 1);
  const std::string folder = folder_end == std::string::npos ? "." : path.substr(0, folder_end);
  char name[32];
  // While a VM moves, two hosts may write here, so the names of a process begin at a random one.
  static std::atomic<uint64_t> number{RandomNumber()};
  std::snprintf(name, sizeof(name), "/.%016llx.tmp", static_cast<unsigned long long>(number++));
  return folder + name;
}

// Returns 0 or a result of WritePortFile.
int WriteDraft(const std::string& draft, std::string_view data) {
  const UniqueFd file(::open(draft.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kFileMode));
  if (!file) {
    ZLOG_ERROR("44212", "Error creating/opening port file:%d", errno);
    return -1;
  }
  if (::ftruncate(file.get(), 0) != 0) {
    ZLOG_ERROR("44212", "Error truncating file:%d", errno);
    return -2;
  }
  const size_t size = (data.size() + kBlock - 1) / kBlock * kBlock;
  const std::unique_ptr<void, void (*)(void*)> buffer(std::aligned_alloc(kBlock, std::max(size, kBlock)),
                                                      &std::free);
  if (buffer == nullptr) {
    ZLOG_ERROR("44212", "Error mallocing");
    return -3;
  }
  // The padding must not carry memory of the process to the disk.
  std::memset(buffer.get(), 0, size);
  std::memcpy(buffer.get(), data.data(), data.size());
  if (::pwrite(file.get(), buffer.get(), size, 0) != static_cast<ssize_t>(size) ||
      ::fdatasync(file.get()) != 0) {
    ZLOG_ERROR("44212", "Error writing to file:%d", errno);
    return -4;
  }
  return 0;
}

}  // namespace

std::optional<std::string> VmDirectoryOf(const std::string& gcf_path) {
  const size_t slash = gcf_path.rfind('/');
  if (slash == std::string::npos) return std::nullopt;
  return gcf_path.substr(0, slash);
}

std::optional<std::string> VmDirectoryOfPortFile(const std::string& path) {
  const size_t at = path.rfind(std::string(kFolder) + "/");
  if (at == std::string::npos) return std::nullopt;
  return path.substr(0, at);
}

std::optional<std::string> PortFilePath(const std::string& vm_directory, const std::string& dvs,
                                        const std::string& port) {
  if (!IsFileName(dvs) || !IsFileName(port)) return std::nullopt;
  return vm_directory + std::string(kFolder) + "/" + dvs + "/" + port;
}

// Tries the innermost directory first: the VM's own nearly always exists.
bool MakePortFileDirectories(const std::string& path) {
  const size_t at = path.rfind('/');
  if (at == std::string::npos || at == 0) return true;
  const std::string directory = path.substr(0, at);
  if (::mkdir(directory.c_str(), kDirectoryMode) == 0) return true;
  if (errno == ENOENT && MakePortFileDirectories(directory) &&
      ::mkdir(directory.c_str(), kDirectoryMode) == 0) {
    return true;
  }
  const int error = errno;
  // Another process may have created it meanwhile, or it exists where mkdir is not permitted.
  struct stat status;
  if (::stat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) return true;
  if (error != ENOENT) {
    ZLOG_WARN("[PortOp] Directory [%s] cannot be made: %s", directory.c_str(), std::strerror(error));
  }
  return false;
}

int WritePortFile(const std::string& path, std::string_view data) {
  const std::string draft = DraftOf(path);
  int result = WriteDraft(draft, data);
  if (result == 0 && ::rename(draft.c_str(), path.c_str()) != 0) {
    const bool no_folder = errno == ENOENT || errno == ENOTDIR;
    if (no_folder) {
      ZLOG_ERROR("44212", "Error creating/opening port file:%d", errno);
    } else {
      ZLOG_ERROR("44212", "Error writing to file:%d", errno);
    }
    result = no_folder ? -1 : -4;
  }
  if (result != 0) {
    ::unlink(draft.c_str());
    return result;
  }
  ZLOG_INFO("Wrote to port file:[%s]", path.c_str());
  return 0;
}

int ReadPortFile(const std::string& path, std::string* data) {
  // Without O_NONBLOCK, opening a pipe in place of the file would wait for a writer.
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) return errno;
  struct stat status;
  if (::fstat(file.get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return EINVAL;
  if (static_cast<uint64_t>(status.st_size) > kLargest) return EFBIG;
  std::string bytes(static_cast<size_t>(status.st_size), '\0');
  size_t got = 0;
  while (got < bytes.size()) {
    const ssize_t part = ::read(file.get(), bytes.data() + got, bytes.size() - got);
    if (part < 0 && errno == EINTR) continue;
    if (part < 0) return errno;
    if (part == 0) break;
    got += static_cast<size_t>(part);
  }
  bytes.resize(got);
  *data = std::move(bytes);
  return 0;
}

std::vector<PortFileEntry> PortFilesOf(const std::string& vm_directory) {
  const std::string folder = vm_directory + std::string(kFolder);
  std::vector<PortFileEntry> files;
  for (const std::string& dvs : read_directory(folder, true)) {
    ZLOG_INFO("[PortOp] Found DVS:[%s]", dvs.c_str());
    for (const std::string& port : read_directory(folder + "/" + dvs, false)) {
      ZLOG_INFO("[PortOp] Found PortKey:[%s]", port.c_str());
      files.push_back({dvs, port, folder + "/" + dvs + "/" + port});
    }
  }
  return files;
}

bool RemovePortFile(const std::string& path) {
  if (::unlink(path.c_str()) == 0 || errno == ENOENT) return true;
  ZLOG_WARN("[PortOp] Port file [%s] cannot be removed: %s", path.c_str(), std::strerror(errno));
  return false;
}

bool DeletePortFile(const std::string& path) {
  const auto directory = VmDirectoryOfPortFile(path);
  if (!directory) return false;
  try {
    std::filesystem::remove_all(*directory + std::string(kFolder));
    return true;
  } catch (const std::exception&) {
    ZLOG_ERROR("OPS60012", "Port file deletion caught some exception");
    return false;
  }
}

}  // namespace zem::zema
