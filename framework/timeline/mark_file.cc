#include "framework/timeline/mark_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <utility>

#include "framework/log/log.h"
#include "framework/process/error_text.h"
#include "platform/core/clock.h"
#include "platform/timeline/marks.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};
constexpr mode_t kMode = 0600;  // it names VMs and their files
using timeline::MarkTable;

bool SameFile(int fd, const std::string& path) {
  struct stat mine {};
  struct stat named {};
  return ::fstat(fd, &mine) == 0 && ::lstat(path.c_str(), &named) == 0 && mine.st_dev == named.st_dev &&
         mine.st_ino == named.st_ino;
}

// Read rather than mapped: a file that grows shorter meanwhile is a short read and no signal.
std::vector<std::byte> ReadAll(int fd) {
  std::vector<std::byte> bytes(MarkTable::kBytes + 1);
  size_t got = 0;
  while (got < bytes.size()) {
    const ssize_t part = ::pread(fd, &bytes[got], bytes.size() - got, static_cast<off_t>(got));
    if (part < 0 && errno == EINTR) continue;
    if (part <= 0) break;
    got += static_cast<size_t>(part);
  }
  bytes.resize(got);
  return bytes;
}

}  // namespace

MarkFile::MarkFile(std::string path) : path_(std::move(path)), usable_(ReadBefore()) {}

MarkFile::~MarkFile() {
  timeline::SetMarks(nullptr);
  if (file_ && SameFile(file_.get(), path_)) ::unlink(path_.c_str());
}

bool MarkFile::ReadBefore() {
  const auto leave = [this](const std::string& why) {
    ZLOG_WARN("[MarkFile] operations under way are not marked for the next start: %s %s", path_.c_str(),
              why.c_str());
    return false;
  };
  const UniqueFd before(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  if (!before) return errno == ENOENT || leave(Util::GetErrMsg(errno));
  struct stat status {};
  if (::fstat(before.get(), &status) != 0) return leave(Util::GetErrMsg(errno));
  if (!S_ISREG(status.st_mode)) return leave("is not a file");
  if (status.st_uid != ::geteuid()) return leave("belongs to another user");
  // The life that made it holds the lock until its end.
  if (::flock(before.get(), LOCK_EX | LOCK_NB) != 0) return leave("is in use by another process");
  size_t damaged = 0;
  auto marked = MarkTable::Read(ReadAll(before.get()), &damaged);
  if (!marked) {
    ZLOG_WARN("[%s] %s is no file of marks and is replaced", __func__, path_.c_str());
  } else if (damaged != 0) {
    ZLOG_WARN("[%s] %zu marks of %s cannot be read", __func__, damaged, path_.c_str());
  }
  if (marked) interrupted_ = std::move(*marked);
  return true;
}

void MarkFile::BeginAnew() {
  if (!usable_) return;
  const std::string error = Make();
  if (error.empty()) return;
  // What it tells has been told.
  ::unlink(path_.c_str());
  ZLOG_WARN("[%s] operations under way are not marked for the next start: %s: %s", __func__, path_.c_str(),
            error.c_str());
}

std::string MarkFile::Make() {
  const std::string fresh = path_ + ".new";
  if (::unlink(fresh.c_str()) != 0 && errno != ENOENT) return Util::GetErrMsg(errno);
  UniqueFd file(::open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kMode));
  if (!file) return Util::GetErrMsg(errno);
  int error = 0;
  void* memory = MAP_FAILED;
  // With its space reserved, no store into the mapping can fail on a full disk.
  if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0 ||
      (errno = ::posix_fallocate(file.get(), 0, MarkTable::kBytes)) != 0 ||
      (memory = ::mmap(nullptr, MarkTable::kBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0)) ==
          MAP_FAILED) {
    error = errno;
  } else {
    const auto table = std::make_shared<MarkTable>(std::shared_ptr<std::byte>(
        static_cast<std::byte*>(memory), [](std::byte* mapped) { ::munmap(mapped, MarkTable::kBytes); }));
    table->Alive(Clock::Process().WallNow());
    if (::rename(fresh.c_str(), path_.c_str()) == 0) {
      table_ = table;
      file_ = std::move(file);
      timeline::SetMarks(table_);
      return "";
    }
    error = errno;
  }
  ::unlink(fresh.c_str());
  return Util::GetErrMsg(error);
}

void MarkFile::Alive() {
  if (table_) table_->Alive(Clock::Process().WallNow());
}

}  // namespace zem::Tarvik
