#include "app/livetrace/capture_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "platform/core/unique_fd.h"

namespace zem::Tarvik {
namespace {

constexpr size_t kLongestName = 255;

struct CloseFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

// A folder of ours, or nothing.
UniqueFd OpenOwn(int parent, const std::string& name) {
  UniqueFd folder(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  const bool ours = folder && ::fstat(folder.get(), &status) == 0 && status.st_uid == ::geteuid() &&
                    (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  return ours ? std::move(folder) : UniqueFd();
}

UniqueFd OpenCaptures(const std::string& path) {
  const std::string folder = path.substr(0, path.find_last_not_of('/') + 1);
  const size_t slash = folder.rfind('/');
  if (slash == std::string::npos || slash == 0) return UniqueFd();
  // With a slash at its end, a link would be followed.
  const UniqueFd around = OpenOwn(AT_FDCWD, folder.substr(0, slash));
  return around ? OpenOwn(around.get(), folder.substr(slash + 1)) : UniqueFd();
}

}  // namespace

bool CaptureFolder::IsName(const std::string& name) {
  return !name.empty() && name.size() <= kLongestName && name != "." && name != ".." &&
         name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

bool CaptureFolder::Remove(const std::string& name) const {
  const UniqueFd folder = OpenCaptures(path_);
  return folder && IsName(name) && ::unlinkat(folder.get(), name.c_str(), 0) == 0;
}

std::vector<std::string> CaptureFolder::RemoveAll() const {
  std::vector<std::string> removed;
  UniqueFd fd = OpenCaptures(path_);
  if (!fd) return removed;
  const std::unique_ptr<DIR, CloseFolder> folder(::fdopendir(fd.get()));
  if (folder == nullptr) return removed;
  const int open = fd.Release();
  while (const dirent* const entry = ::readdir(folder.get())) {
    if (::unlinkat(open, entry->d_name, 0) == 0) removed.emplace_back(entry->d_name);
  }
  return removed;
}

}  // namespace zem::Tarvik
