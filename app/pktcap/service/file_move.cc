#include "app/pktcap/service/file_move.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
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
int Copy(const UniqueFd& source, const UniqueFd& target, const std::atomic<bool>& stop) {
  for (;;) {
    if (stop) return ECANCELED;
    const ssize_t part = ::sendfile(target.get(), source.get(), nullptr, kPiece);
    if (part < 0 && errno == EINTR) continue;
    if (part < 0) return errno;
    if (part == 0) return ::fsync(target.get()) == 0 ? 0 : errno;
  }
}

// Copies into a file without a name, which goes with the daemon if that is killed.  Returns 0 or an errno.
int CopyUnnamed(const UniqueFd& source, const UniqueFd& target, const std::string& to,
                const std::atomic<bool>& stop) {
  if (const int error = Copy(source, target, stop); error != 0) return error;
  const std::string unnamed = "/proc/self/fd/" + std::to_string(target.get());
  return ::linkat(AT_FDCWD, unnamed.c_str(), AT_FDCWD, to.c_str(), AT_SYMLINK_FOLLOW) == 0 ? 0 : errno;
}

// For file systems that know no file without a name.  Returns 0 or an errno.
int CopyBeside(const UniqueFd& source, const std::string& to, const std::atomic<bool>& stop) {
  std::string beside = to + ".XXXXXX";
  const UniqueFd target(::mkostemp(beside.data(), O_CLOEXEC));
  if (!target) return errno;
  int error = Copy(source, target, stop);
  if (error == 0) error = Rename(beside, to);
  if (error != 0) ::unlink(beside.c_str());
  return error;
}

// Returns 0 or an errno.
int CopyTo(const std::string& from, const std::string& to, const std::atomic<bool>& stop) {
  const UniqueFd source(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (!source) return errno;
  const size_t slash = to.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : to.substr(0, slash + 1);
  const UniqueFd target(::open(folder.c_str(), O_WRONLY | O_TMPFILE | O_CLOEXEC, 0600));
  return target ? CopyUnnamed(source, target, to, stop) : CopyBeside(source, to, stop);
}

}  // namespace

bool MoveFile(const std::string& from, const std::string& to, const std::atomic<bool>& stop) {
  int error = Rename(from, to);
  if (error == EXDEV) {
    error = CopyTo(from, to, stop);
    if (error == 0) ::unlink(from.c_str());
  }
  if (error == 0) return true;
  ZLOG_WARN("Capture file %s was not moved to %s: %s", from.c_str(), to.c_str(), std::strerror(error));
  return false;
}

}  // namespace zem::Tarvik
