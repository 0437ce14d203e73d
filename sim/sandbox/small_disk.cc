#include "sim/sandbox/small_disk.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <vector>

#include "platform/core/unique_fd.h"

namespace zem::sim {
namespace {

constexpr const char* kFiller = ".filler";

std::runtime_error Failure(const std::string& path, const std::string& why) {
  return std::runtime_error(path + ": " + why);
}

std::string FillerOf(const std::string& folder) { return folder + "/" + kFiller; }

}  // namespace

void LimitDisk(const std::string& folder, const std::string& kib) {
  namespace fs = std::filesystem;
  std::map<std::string, std::string> kept;
  std::vector<fs::path> folders;
  std::error_code error;
  for (const auto& entry : fs::recursive_directory_iterator(folder, error)) {
    if (entry.is_directory()) {
      folders.push_back(entry.path());
      continue;
    }
    std::ifstream in(entry.path(), std::ios::binary);
    kept[entry.path()] = std::string(std::istreambuf_iterator<char>(in), {});
  }
  if (error) throw Failure(folder, error.message());
  const std::string options = "size=" + kib + "k,mode=755";
  if (::mount("limited", folder.c_str(), "tmpfs", 0, options.c_str()) != 0) {
    throw Failure(folder, std::strerror(errno));
  }
  for (const fs::path& inner : folders) {
    if (!fs::create_directory(inner, error)) throw Failure(inner.string(), error.message());
  }
  for (const auto& [path, text] : kept) {
    std::ofstream out(path, std::ios::binary);
    out << text;
    out.close();
    if (!out) throw Failure(path, "does not fit");
  }
}

size_t FillDisk(const std::string& folder) {
  constexpr size_t kMost = size_t{16} * 1024 * 1024;
  const UniqueFd fd(::open(FillerOf(folder).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  if (!fd) throw Failure(folder, std::strerror(errno));
  const std::string block(4096, 'x');
  size_t written = 0;
  while (written < kMost) {
    const ssize_t took = ::write(fd.get(), block.data(), block.size());
    if (took < 0) break;
    written += static_cast<size_t>(took);
  }
  if (written >= kMost || errno != ENOSPC) throw Failure(folder, "this file system is not limited");
  return written;
}

bool FreeDisk(const std::string& folder) { return ::unlink(FillerOf(folder).c_str()) == 0; }

}  // namespace zem::sim
