#include "app/supportbundle/temp_bundle_link_resource.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "framework/log/log.h"
#include "framework/process/error_text.h"

namespace zem::Tarvik {
namespace {

namespace fs = std::filesystem;

constexpr LogSource kLog{"tarvik", "supportbundle"};

constexpr const char* kTemporary = "/tmp";

// Nobody else may be able to put another thing in the place of what is looked at: in the folder of temporary
// files only the owner may, and in a folder of our own user as well.
bool IsBelowTemporary(const fs::path& path) {
  const fs::path relative = path.lexically_relative(kTemporary);
  if (!path.is_absolute() || path != path.lexically_normal() || relative.empty() || relative == "." ||
      !path.has_filename())
    return false;
  fs::path folder = kTemporary;
  for (const fs::path& part : relative.parent_path()) {
    if (part == "..") return false;
    folder /= part;
    struct stat info {};
    if (::lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid())
      return false;
  }
  return *relative.begin() != "..";
}

void Remove(const fs::path& path) {
  if (::unlink(path.c_str()) == 0) return;
  ZLOG_DEBUG("%s is not removed: %s", path.c_str(), Util::GetErrMsg(errno).c_str());
}

}  // namespace

TempBundleLinkResource::~TempBundleLinkResource() {
  const fs::path path(path_);
  struct stat info {};
  if (path_.empty() || ::lstat(path_.c_str(), &info) != 0) return;
  if (!IsBelowTemporary(path) || info.st_uid != ::geteuid() ||
      !(S_ISREG(info.st_mode) || S_ISLNK(info.st_mode))) {
    ZLOG_WARN("%s is no temporary bundle and stays", path_.c_str());
    return;
  }
  if (S_ISLNK(info.st_mode)) {
    std::error_code unreadable;
    const fs::path target = (path.parent_path() / fs::read_symlink(path, unreadable)).lexically_normal();
    struct stat found {};
    if (!unreadable && ::lstat(target.c_str(), &found) == 0) {
      if (IsBelowTemporary(target) && found.st_uid == ::geteuid() && S_ISREG(found.st_mode)) {
        Remove(target);
      } else {
        ZLOG_WARN("%s is no temporary bundle and stays", target.c_str());
      }
    }
  }
  Remove(path);
}

}  // namespace zem::Tarvik
