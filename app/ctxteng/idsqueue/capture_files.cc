#include "app/ctxteng/idsqueue/capture_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <memory>
#include <system_error>
#include <tuple>

#include "app/ctxteng/idsqueue/interruption.h"
#include "framework/log/log.h"
#include "framework/process/error_text.h"

namespace IdsEvtEng {
namespace {

constexpr zem::LogSource kLog{"tarvik", "idsevt"};

// Names that a round keeps; beyond, the detection process does not name its files as it should.
constexpr size_t kMostUnusualNames = 65536;

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

std::string UsualName(CaptureKey key) {
  return std::to_string(key.flow_id) + "." + std::to_string(key.snip_ts_us) + ".pcap";
}

std::string ErrorText() { return zem::Tarvik::Util::GetErrMsg(errno); }

// At most `most` bytes; a file that grows meanwhile counts as it was.
bool ReadAll(int fd, size_t size, std::string* bytes) {
  bytes->resize(size);
  size_t got = 0;
  while (got < size) {
    const ssize_t part = ::read(fd, bytes->data() + got, size - got);
    if (part < 0 && errno == EINTR) continue;
    if (part < 0) return false;
    if (part == 0) break;
    got += static_cast<size_t>(part);
  }
  bytes->resize(got);
  return true;
}

// A file system knows times that nanoseconds in 64 bits do not reach.
zem::WallTime LastWrite(const struct stat& file) {
  constexpr time_t kLatest = 9'000'000'000;
  const auto since_epoch = std::chrono::seconds(std::clamp<time_t>(file.st_mtim.tv_sec, 0, kLatest)) +
                           std::chrono::nanoseconds(file.st_mtim.tv_nsec);
  return zem::WallTime(std::chrono::duration_cast<zem::WallTime::duration>(since_epoch));
}

}  // namespace

std::optional<CaptureKey> ParseCaptureName(const std::string& name) {
  // As std::filesystem has it: a leading point begins no extension.
  const size_t point = name.rfind('.');
  const std::string stem = point == std::string::npos || point == 0 ? name : name.substr(0, point);
  CaptureKey key;
  const char* const end = stem.data() + stem.size();
  const auto flow = std::from_chars(stem.data(), end, key.flow_id);
  if (flow.ec != std::errc() || flow.ptr == end) return std::nullopt;
  const auto snip = std::from_chars(flow.ptr + 1, end, key.snip_ts_us);
  ZLOG_TRACE("filepath.stem(): %s, flowId: %lu, dummyDot: %c snipTsUs: %lu", stem.c_str(), key.flow_id,
             *flow.ptr, key.snip_ts_us);
  if (snip.ec != std::errc() || snip.ptr != end) return std::nullopt;
  return key;
}

bool CaptureFiles::IsDirectory() const {
  struct stat found {};
  return ::stat(directory_.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
}

template <class Visit>
void CaptureFiles::Walk(Visit visit) const {
  const std::unique_ptr<DIR, CloseDirectory> folder(::opendir(directory_.c_str()));
  if (folder == nullptr) throw std::system_error(errno, std::generic_category(), directory_);
  while (!interruption_.stopped()) {
    errno = 0;
    const dirent* const entry = ::readdir(folder.get());
    if (entry == nullptr) {
      if (errno != 0) throw std::system_error(errno, std::generic_category(), directory_);
      return;
    }
    visit(::dirfd(folder.get()), entry->d_name);
  }
}

void CaptureFiles::Remove(CaptureKey key) const { RemoveFile(PathOf(UsualName(key))); }

void CaptureFiles::RemoveFile(const std::string& path) const {
  ZLOG_DEBUG("Removing file: %s", path.c_str());
  if (::unlink(path.c_str()) == 0 || errno == ENOENT) return;
  ZLOG_WARN("filesystem error while removing file: %s err: %s", path.c_str(), ErrorText().c_str());
}

void CaptureFiles::RemoveStale(zem::Duration age) const {
  const zem::Clock& clock = zem::Clock::Process();
  const zem::WallTime now = clock.WallNow();
  Walk([&](int folder, const char* name) {
    struct stat file {};
    if (::fstatat(folder, name, &file, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(file.st_mode)) return;
    if (now - clock.FromMachine(LastWrite(file)) <= age) return;
    const std::string path = PathOf(name);
    ZLOG_INFO("Removing stale pcap file: %s", path.c_str());
    RemoveFile(path);
  });
}

void CaptureFiles::Reader::FindUnusualNames(CaptureKey key) {
  try {
    files_.Walk([this, key](int /*folder*/, const char* entry) {
      const auto found = ParseCaptureName(entry);
      if (!found) return;
      if (*found != key)
        ZLOG_TRACE("not matching with flowId: %lu, snipTsUs: %lu, flowIdF: %lu, snipTsUsF: %lu", key.flow_id,
                   key.snip_ts_us, found->flow_id, found->snip_ts_us);
      if (UsualName(*found) != entry && unusual_names_.size() < kMostUnusualNames)
        unusual_names_.try_emplace(*found, entry);
    });
  } catch (const std::system_error& error) {
    // The captures of the usual names are found all the same.
    ZLOG_WARN("The folder of captures cannot be read: %s", error.what());
  }
}

// By the usual name, or by another one for the same numbers, say with leading zeros.
zem::UniqueFd CaptureFiles::Reader::Open(CaptureKey key, std::string* name) {
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  *name = UsualName(key);
  zem::UniqueFd usual(::openat(folder_.get(), name->c_str(), kFlags));
  if (usual || errno != ENOENT) return usual;
  if (!std::exchange(walked_, true)) FindUnusualNames(key);
  const auto unusual = unusual_names_.find(key);
  if (unusual == unusual_names_.end()) return {};
  *name = unusual->second;
  return zem::UniqueFd(::openat(folder_.get(), name->c_str(), kFlags));
}

std::optional<Capture> CaptureFiles::Reader::Read(CaptureKey key, size_t most, bool remove) {
  if (!std::exchange(opened_, true))
    folder_.Reset(::open(files_.directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder_) return std::nullopt;
  std::string name;
  const zem::UniqueFd fd = Open(key, &name);
  struct stat file {};
  if (!fd || ::fstat(fd.get(), &file) != 0 || !S_ISREG(file.st_mode)) return std::nullopt;
  ZLOG_DEBUG("matched with flowId: %lu, snipTsUs: %lu", key.flow_id, key.snip_ts_us);
  Capture capture;
  capture.length = static_cast<uint64_t>(file.st_size);
  capture.last_write_s = static_cast<uint64_t>(file.st_mtim.tv_sec);
  if (capture.length > most) {
    ZLOG_WARN("The capture %s has %lu bytes and is sent without them", name.c_str(), capture.length);
  } else if (!ReadAll(fd.get(), capture.length, &capture.bytes)) {
    ZLOG_WARN("The capture %s cannot be read: %s", name.c_str(), ErrorText().c_str());
    return std::nullopt;
  } else {
    capture.length = capture.bytes.size();
  }
  if (remove) {
    const std::string path = files_.PathOf(name);
    ZLOG_DEBUG("Removing pcap file: %s", path.c_str());
    files_.RemoveFile(path);
  }
  return capture;
}

}  // namespace IdsEvtEng
