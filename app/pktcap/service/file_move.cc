#include "app/pktcap/service/file_move.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "framework/log/log.h"
#include "platform/core/unique_fd.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "pktcap"};

constexpr size_t kPiece = 1 << 20;

// Never replaces what is there.  Returns 0 or an errno.
int Rename(const std::string& from, const std::string& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL) return errno;
  // This file system cannot promise it in one call.
  if (::link(from.c_str(), to.c_str()) != 0) return errno;
  ::unlink(from.c_str());
  return 0;
}

// Returns 0 or an errno.
int Copy(const std::string& from, const std::string& to) {
  const UniqueFd source(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  const UniqueFd target(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!source || !target) return errno;
  for (;;) {
    const ssize_t part = ::sendfile(target.get(), source.get(), nullptr, kPiece);
    if (part < 0 && errno == EINTR) continue;
    if (part < 0) return errno;
    if (part == 0) break;
  }
  return ::fsync(target.get()) == 0 ? 0 : errno;
}

}  // namespace

bool MoveFile(const std::string& from, const std::string& to) {
  int error = Rename(from, to);
  if (error == EXDEV) {
    const std::string beside = to + ".tmp";
    // A killed daemon may have left one.
    ::unlink(beside.c_str());
    error = Copy(from, beside);
    if (error == 0) error = Rename(beside, to);
    ::unlink(error == 0 ? from.c_str() : beside.c_str());
  }
  if (error == 0) return true;
  ZLOG_WARN("Capture file %s was not moved to %s: %s", from.c_str(), to.c_str(), std::strerror(error));
  return false;
}

}  // namespace zem::Tarvik
