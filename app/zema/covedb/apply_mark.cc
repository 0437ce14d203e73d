#include "app/zema/covedb/apply_mark.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <string_view>
#include <utility>

#include "framework/log/log.h"
#include "framework/process/atomic_file.h"
#include "framework/process/error_text.h"

namespace zem::zema {
namespace {

using Tarvik::Util::GetErrMsg;

constexpr LogSource kLog{"tarvik", "zema"};

// Far larger than any mark; a longer file was not written by this agent.
constexpr size_t kMaxFile = 64 * 1024 * 1024;

// The file of the mark: records of "NAME LENGTH\n", followed by LENGTH bytes and a newline.
constexpr std::array<std::string_view, 3> kKinds = {"configuration", "removal", "reset"};

void AddRecord(std::string_view name, std::string_view value, std::string* text) {
  text->append(name).append(" ").append(std::to_string(value.size())).append("\n").append(value).append("\n");
}

// Returns nothing at the end of the text, and where it is not a record.
std::optional<std::pair<std::string_view, std::string_view>> TakeRecord(std::string_view* rest) {
  const size_t end = rest->find('\n');
  const size_t blank = rest->substr(0, end).find(' ');
  if (end == std::string_view::npos || blank == std::string_view::npos) return std::nullopt;
  size_t length = 0;
  const char* const number_end = rest->data() + end;
  const auto [stop, error] = std::from_chars(rest->data() + blank + 1, number_end, length);
  const std::string_view behind = rest->substr(end + 1);
  if (error != std::errc() || stop != number_end || length >= behind.size()) return std::nullopt;
  const std::pair record(rest->substr(0, blank), behind.substr(0, length));
  *rest = behind.substr(length + 1);
  return record;
}

}  // namespace

bool ApplyMark::Begin(const UnfinishedApply& apply) {
  const std::lock_guard lock(mutex_);
  ++number_;
  not_in_force_ = false;
  std::string text;
  AddRecord("kind", kKinds[static_cast<size_t>(apply.kind)], &text);
  AddRecord("message", apply.message, &text);
  AddRecord("header", apply.header, &text);
  AddRecord("correlation_id", apply.correlation_id, &text);
  AddRecord("reply_to", apply.reply_to, &text);
  AddRecord("migration_request", apply.migration_request, &text);
  AddRecord("migration_result_file", apply.migration_result_file, &text);
  for (const auto& [id, mac] : apply.routers_before) {
    AddRecord("switch", id, &text);
    AddRecord("router", mac, &text);
  }
  for (const std::string& vif : apply.leaving_vifs) AddRecord("leaving_vif", vif, &text);
  std::string reason;
  if (WriteFileWhole(path_, text, &reason) == FileWrite::kDone) return true;
  ZLOG_ERROR("44062", "[%s] Failed to write to the host config file [%s], error [%s].\n", "BeginApply",
             path_.c_str(), reason.c_str());
  return false;
}

uint64_t ApplyMark::number() {
  const std::lock_guard lock(mutex_);
  return number_;
}

void ApplyMark::End(uint64_t number) {
  const std::lock_guard lock(mutex_);
  if (number == number_) EndLocked();
}

void ApplyMark::End() {
  const std::lock_guard lock(mutex_);
  EndLocked();
}

void ApplyMark::EndLocked() {
  not_in_force_ = false;
  if (const int reason = RemoveFile(path_); reason != 0) {
    ZLOG_ERROR("44065", "[%s] Failed to delete host config file [%s]: %s\n", "EndApply", path_.c_str(),
               GetErrMsg(reason).c_str());
  }
}

// A mark that cannot be read, or was written by an agent that recorded less, still says that an application
// was under way.
std::optional<UnfinishedApply> ApplyMark::Unfinished() const {
  std::string text;
  const int reason = ReadFileWhole(path_, kMaxFile, &text);
  if (reason == ENOENT) return std::nullopt;
  UnfinishedApply apply;
  std::string switch_id;
  std::string_view rest = text;
  while (const auto record = TakeRecord(&rest)) {
    const auto& [name, value] = *record;
    if (name == "kind") {
      const auto kind = std::find(kKinds.begin(), kKinds.end(), value);
      if (kind != kKinds.end()) apply.kind = static_cast<UnfinishedApply::Kind>(kind - kKinds.begin());
    }
    if (name == "message") apply.message = value;
    if (name == "header") apply.header = value;
    if (name == "correlation_id") apply.correlation_id = value;
    if (name == "reply_to") apply.reply_to = value;
    if (name == "migration_request") apply.migration_request = value;
    if (name == "migration_result_file") apply.migration_result_file = value;
    if (name == "switch") switch_id = value;
    if (name == "router") apply.routers_before[switch_id] = value;
    if (name == "leaving_vif") apply.leaving_vifs.emplace_back(value);
  }
  return apply;
}

}  // namespace zem::zema
