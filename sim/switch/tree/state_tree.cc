#include "sim/switch/tree/state_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace zem::sim::tree {
namespace {

constexpr const char* kDefaultRoot = "/var/run/orlane/sim";
constexpr size_t kLongestName = 255;

std::atomic<uint64_t> hidden_names{0};

bool WriteWhole(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

}  // namespace

std::string Root() {
  const char* const root = std::getenv("ZEM_SIM_ROOT");
  return root == nullptr || *root == '\0' ? kDefaultRoot : root;
}
std::string SwitchesDir() { return Root() + "/switch/switches"; }
std::string SwitchDir(std::string_view id) { return SwitchesDir().append("/").append(id); }
std::string PortDir(std::string_view id, std::string_view key) {
  return SwitchDir(id).append("/ports/").append(key);
}
std::string KnlnicsDir() { return Root() + "/switch/knlnics"; }
std::string RouterFile(std::string_view id) { return (Root() + "/switch/vdr/").append(id).append(".json"); }
std::string FaultsFile() { return Root() + "/switch/faults"; }
std::string CallsFile() { return Root() + "/switch/calls.log"; }
std::string ViolationsFile() { return Root() + "/switch/violations.log"; }

bool GoodName(std::string_view name) {
  return !name.empty() && name.size() <= kLongestName && name.front() != '.' &&
         name.find('/') == std::string_view::npos;
}

TreeLock::TreeLock(Kind kind) : fd_(::open((Root() + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
  if (fd_ < 0) return;  // no tree, so nothing to lock; every call then reports "not found"
  while (::flock(fd_, kind == Kind::kShared ? LOCK_SH : LOCK_EX) != 0 && errno == EINTR) {
  }
}

TreeLock::~TreeLock() {
  if (fd_ >= 0) ::close(fd_);
}

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

std::optional<std::string> ReadFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string bytes;
  char buffer[4096];
  ssize_t got = 0;
  while ((got = ::read(fd, buffer, sizeof(buffer))) > 0) {
    bytes.append(buffer, static_cast<size_t>(got));
    if (static_cast<size_t>(got) < sizeof(buffer)) break;
  }
  ::close(fd);
  if (got < 0) return std::nullopt;
  return bytes;
}

std::string HiddenBeside(const std::string& path) {
  const size_t slash = path.rfind('/');
  return path.substr(0, slash + 1) + "." + std::to_string(::getpid()) + "." +
         std::to_string(hidden_names.fetch_add(1)) + ".tmp";
}

bool WriteFile(const std::string& path, std::string_view bytes) {
  const std::string temporary = HiddenBeside(path);
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool written = WriteWhole(fd, bytes);
  ::close(fd);
  if (written && ::rename(temporary.c_str(), path.c_str()) == 0) return true;
  ::unlink(temporary.c_str());
  return false;
}

bool RemoveFile(const std::string& path) { return ::unlink(path.c_str()) == 0; }

bool RemoveTree(const std::string& path) {
  const std::string gone = HiddenBeside(path);
  if (::rename(path.c_str(), gone.c_str()) != 0) return false;
  std::error_code ignored;  // a remainder stays hidden
  std::filesystem::remove_all(gone, ignored);
  return true;
}

bool ForEachName(const std::string& path, const std::function<void(std::string_view)>& each) {
  DIR* const directory = ::opendir(path.c_str());
  if (directory == nullptr) return false;
  while (const dirent* const entry = ::readdir(directory)) {
    if (entry->d_name[0] != '.') each(entry->d_name);
  }
  ::closedir(directory);
  return true;
}

std::optional<std::vector<std::string>> List(const std::string& path) {
  std::vector<std::string> names;
  if (!ForEachName(path, [&names](std::string_view name) { names.emplace_back(name); })) return std::nullopt;
  return names;
}

std::optional<Property> ReadProperty(const std::string& path) {
  std::optional<std::string> file = ReadFile(path);
  Property property;
  if (!file || file->size() < sizeof(property.flags)) return std::nullopt;
  std::memcpy(&property.flags, file->data(), sizeof(property.flags));
  property.bytes = file->substr(sizeof(property.flags));
  return property;
}

std::string PropertyFile(uint32_t flags, std::string_view bytes) {
  std::string file(reinterpret_cast<const char*>(&flags), sizeof(flags));
  return file.append(bytes);
}

}  // namespace zem::sim::tree
