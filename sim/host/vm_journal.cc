#include "sim/host/vm_journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <system_error>

#include "platform/core/unique_fd.h"

namespace zem::sim {
namespace {

// The file is rewritten when it has more lines than this plus four for each machine.
constexpr uint64_t kSpareLines = 1000;

[[noreturn]] void Fail(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), path);
}

void WriteWhole(int fd, std::string_view bytes, const std::string& path) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) Fail(path);
    bytes.remove_prefix(static_cast<size_t>(written));
  }
}

std::string TextOf(const cJSON* object, const char* member) {
  const char* const text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, member));
  return text == nullptr ? std::string() : text;
}

Json Change(const char* op, const std::string& uuid, Json machine) {
  Json change = machine ? std::move(machine) : JsonObject();
  cJSON_DeleteItemFromObjectCaseSensitive(change.get(), "op");
  cJSON_DeleteItemFromObjectCaseSensitive(change.get(), "uuid");
  AddMember(change.get(), "op", op);
  AddMember(change.get(), "uuid", uuid);
  return change;
}

}  // namespace

void VmJournal::Refresh() {
  const UniqueFd file(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) {
    machines_.clear();
    inode_ = 0;
    read_ = lines_ = 0;
    return;
  }
  const auto size = static_cast<uint64_t>(status.st_size);
  if (status.st_ino != inode_ || size < read_) {
    machines_.clear();
    inode_ = status.st_ino;
    read_ = lines_ = 0;
  }
  if (size == read_) return;
  std::string text(size - read_, '\0');
  const ssize_t got = ::pread(file.get(), text.data(), text.size(), static_cast<off_t>(read_));
  if (got < 0) Fail(path_);
  text.resize(static_cast<size_t>(got));
  // A line without its end is ignored: it is still being written, or its writer died.
  for (size_t at = 0, end = 0; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
    Take(Json(cJSON_ParseWithLength(text.data() + at, end - at)));
    read_ += end + 1 - at;
    ++lines_;
  }
}

const cJSON* VmJournal::Find(const std::string& uuid) const {
  const auto found = machines_.find(uuid);
  return found == machines_.end() ? nullptr : found->second.get();
}

void VmJournal::Take(Json change) {
  if (!change) return;
  const std::string op = TextOf(change.get(), "op");
  const std::string uuid = TextOf(change.get(), "uuid");
  if (op == "clear") {
    machines_.clear();
  } else if (op == "set") {
    cJSON_DeleteItemFromObjectCaseSensitive(change.get(), "op");
    cJSON_DeleteItemFromObjectCaseSensitive(change.get(), "uuid");
    machines_[uuid] = std::move(change);
  } else {
    machines_.erase(uuid);
  }
}

void VmJournal::Put(const std::string& uuid, Json machine) {
  Append(Change("set", uuid, std::move(machine)));
}
void VmJournal::Remove(const std::string& uuid) { Append(Change("del", uuid, nullptr)); }
void VmJournal::Clear() { Append(Change("clear", "", nullptr)); }

void VmJournal::Append(Json change) {
  const std::string line = JsonText(change.get()) + "\n";
  const UniqueFd file(::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) Fail(path_);
  // An incomplete line of a writer that died is cut off, so that it does not merge with this one.
  if (static_cast<uint64_t>(status.st_size) > read_ &&
      ::ftruncate(file.get(), static_cast<off_t>(read_)) != 0)
    Fail(path_);
  WriteWhole(file.get(), line, path_);
  inode_ = status.st_ino;
  read_ += line.size();
  ++lines_;
  Take(std::move(change));
  if (lines_ > kSpareLines + 4 * machines_.size()) Rewrite();
}

void VmJournal::Rewrite() {
  std::string text;
  for (const auto& [uuid, machine] : machines_) {
    text += JsonText(Change("set", uuid, Json(cJSON_Duplicate(machine.get(), true))).get()) + "\n";
  }
  const std::string temporary = path_ + "." + std::to_string(::getpid()) + ".node";
  {
    const UniqueFd file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) Fail(temporary);
    WriteWhole(file.get(), text, temporary);
    inode_ = status.st_ino;
  }
  if (std::rename(temporary.c_str(), path_.c_str()) != 0) Fail(path_);
  read_ = text.size();
  lines_ = machines_.size();
}

}  // namespace zem::sim
