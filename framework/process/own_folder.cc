#include "framework/process/own_folder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace zem {

bool OthersWriteBeside(const std::string& path) {
  const std::string folder = path.substr(0, path.rfind('/'));
  struct stat status {};
  if (::lstat(folder.c_str(), &status) != 0) return errno != ENOENT;
  return !S_ISDIR(status.st_mode) || status.st_uid != ::geteuid() ||
         (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

}  // namespace zem
