#include "framework/process/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "framework/process/error_text.h"
#include "platform/core/unique_fd.h"
#include "platform/timeline/step.h"

// A rename replaces a name atomically, but only what was synced before survives a power cut: the bytes first,
// then the name, then the folder that holds the name.

namespace zem {
namespace {

std::string Folder(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

bool SyncFolder(const std::string& folder) {
  const UniqueFd fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd && ::fsync(fd.get()) == 0;
}

}  // namespace

namespace {

FileWrite Replace(const std::string& path, std::string_view bytes, std::string* error, mode_t mode) {
  const std::string temporary = path + ".tmp";
  UniqueFd fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
  if (!fd) {
    *error = Tarvik::Util::GetErrMsg(errno);
    return FileWrite::kNotOpened;
  }
  bool done = WriteAll(fd.get(), bytes) && ::fsync(fd.get()) == 0;
  int reason = errno;
  // Some file systems report a full disk only here.
  if (::close(fd.Release()) != 0 && done) {
    done = false;
    reason = errno;
  }
  if (done && ::rename(temporary.c_str(), path.c_str()) != 0) {
    done = false;
    reason = errno;
  }
  if (!done) {
    ::unlink(temporary.c_str());
    *error = Tarvik::Util::GetErrMsg(reason);
    return FileWrite::kNotWritten;
  }
  if (!SyncFolder(Folder(path))) {
    *error = Tarvik::Util::GetErrMsg(errno);
    return FileWrite::kNotWritten;
  }
  return FileWrite::kDone;
}

}  // namespace

FileWrite WriteFileWhole(const std::string& path, std::string_view bytes, std::string* error, mode_t mode) {
  timeline::Step step("writes a file", path);
  const FileWrite result = Replace(path, bytes, error, mode);
  if (result == FileWrite::kDone) {
    step.Result("done", false);
  } else {
    step.Result(*error, true);
  }
  return result;
}

int ReadFileWhole(const std::string& path, size_t limit, std::string* bytes) {
  // A pipe in the file's place must not hold up its reader.
  const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd) return errno;
  struct stat status {};
  if (::fstat(fd.get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return EINVAL;
  bytes->clear();
  char part[65536];
  for (;;) {
    const ssize_t got = ::read(fd.get(), part, sizeof(part));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    if (got == 0) return 0;
    if (bytes->size() + static_cast<size_t>(got) > limit) return EFBIG;
    bytes->append(part, static_cast<size_t>(got));
  }
}

int RemoveFile(const std::string& path) {
  if (::unlink(path.c_str()) != 0) return errno == ENOENT ? 0 : errno;
  return SyncFolder(Folder(path)) ? 0 : errno;
}

}  // namespace zem
