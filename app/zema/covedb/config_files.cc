#include "app/zema/covedb/config_files.h"

#include <google/protobuf/message.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <utility>

#include "framework/log/log.h"
#include "framework/process/atomic_file.h"
#include "framework/process/error_text.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

using orlane::zem::switching::HostConfigMsg;
using orlane::zem::switching::MaintenanceModeConfigMsg;
using Tarvik::Util::GetErrMsg;

constexpr LogSource kLog{"tarvik", "zema"};

// Far larger than any configuration; a longer file was not written by this agent.
constexpr size_t kMaxFile = 64 * 1024 * 1024;

constexpr const char* kNotOpened = "Failed to open host config file to read.";
constexpr const char* kNotParsed = "Failed to parse config file.";

// The wire format has no magic number: an empty file, and many foreign ones, parse as a message without any
// known field.
bool IsOurs(const HostConfigMsg& message) {
  return message.has_id() || message.has_transport_node_id() || message.has_revision() ||
         message.host_switches_size() > 0;
}
bool IsOurs(const MaintenanceModeConfigMsg& message) {
  return message.has_id() || message.has_transport_node_id() || message.has_revision() || message.has_state();
}

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

void SetError(std::string* error, const char* text) {
  if (error != nullptr) *error = text;
}

}  // namespace

int ConfigFiles::PersistHostConfigToFile(const HostConfigMsg& message) {
  const std::lock_guard lock(mutex_);
  std::string reason;
  switch (WriteFileWhole(paths_.host_config, message.SerializeAsString(), &reason)) {
    case FileWrite::kDone:
      return 0;
    case FileWrite::kNotOpened:
      ZLOG_ERROR("44061", "[%s] Failed to open host config file to write [%s]: error [%s].\n", __func__,
                 paths_.host_config.c_str(), reason.c_str());
      return -1;
    case FileWrite::kNotWritten:
      break;
  }
  ZLOG_ERROR("44062", "[%s] Failed to write to the host config file [%s], error [%s].\n", __func__,
             paths_.host_config.c_str(), reason.c_str());
  return -1;
}

bool ConfigFiles::Read(const std::string& path, google::protobuf::MessageLite* message, std::string* error) {
  std::string bytes;
  if (const int reason = ReadFileWhole(path, kMaxFile, &bytes); reason != 0) {
    if (reason == EFBIG || reason == EINVAL) {
      SetError(error, kNotParsed);
      ZLOG_ERROR("44064", "[%s] Failed to parse config file.\n", "RetrieveHostConfigMsgFromFile");
    } else {
      SetError(error, kNotOpened);
      ZLOG_ERROR("44061", "[%s] Failed to open host config file to read.\n", "RetrieveHostConfigMsgFromFile");
    }
    return false;
  }
  if (message->ParseFromString(bytes)) return true;
  SetError(error, kNotParsed);
  ZLOG_ERROR("44064", "[%s] Failed to parse config file.\n", "RetrieveHostConfigMsgFromFile");
  return false;
}

bool ConfigFiles::RetrieveHostConfigMsgFromFile(HostConfigMsg* message, std::string* error) {
  HostConfigMsg read;
  if (!Read(paths_.host_config, &read, error)) return false;
  if (!IsOurs(read)) {
    SetError(error, kNotParsed);
    ZLOG_ERROR("44064", "[%s] Failed to parse config file.\n", __func__);
    return false;
  }
  *message = std::move(read);
  return true;
}

bool ConfigFiles::BeginApply(const UnfinishedApply& apply) {
  const std::lock_guard lock(mutex_);
  ++apply_number_;
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
  if (WriteFileWhole(ApplyMark(), text, &reason) == FileWrite::kDone) return true;
  ZLOG_ERROR("44062", "[%s] Failed to write to the host config file [%s], error [%s].\n", __func__,
             ApplyMark().c_str(), reason.c_str());
  return false;
}

uint64_t ConfigFiles::apply_number() {
  const std::lock_guard lock(mutex_);
  return apply_number_;
}

void ConfigFiles::EndApply(uint64_t number) {
  const std::lock_guard lock(mutex_);
  if (number == apply_number_) EndApplyLocked();
}

void ConfigFiles::EndApply() {
  const std::lock_guard lock(mutex_);
  EndApplyLocked();
}

void ConfigFiles::EndApplyLocked() {
  not_in_force_ = false;
  if (const int reason = RemoveFile(ApplyMark()); reason != 0) {
    ZLOG_ERROR("44065", "[%s] Failed to delete host config file [%s]: %s\n", __func__, ApplyMark().c_str(),
               GetErrMsg(reason).c_str());
  }
}

// A mark that cannot be read, or was written by an agent that recorded less, still says that an application
// was under way.
std::optional<UnfinishedApply> ConfigFiles::ApplyUnfinished() const {
  std::string text;
  const int reason = ReadFileWhole(ApplyMark(), kMaxFile, &text);
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

bool ConfigFiles::HasHostConfigFile() const { return ::access(paths_.host_config.c_str(), F_OK) == 0; }

int ConfigFiles::PersistMmodeCfgToFile(const MaintenanceModeConfigMsg& message) {
  const std::lock_guard lock(mutex_);
  std::string reason;
  switch (WriteFileWhole(paths_.mmode, message.SerializeAsString(), &reason)) {
    case FileWrite::kDone:
      return 0;
    case FileWrite::kNotOpened:
      ZLOG_ERROR("42011", "[%s] Failed to open maintenance mode config file [%s]: %s\n", __func__,
                 paths_.mmode.c_str(), reason.c_str());
      return -1;
    case FileWrite::kNotWritten:
      break;
  }
  ZLOG_ERROR("42014", "[%s] Failed to write to maintenance mode config file [%s][%s].\n", __func__,
             paths_.mmode.c_str(), reason.c_str());
  return -1;
}

bool ConfigFiles::RetrieveMmodeCfgMsgFromFile(MaintenanceModeConfigMsg* message, std::string* error) {
  MaintenanceModeConfigMsg read;
  if (!Read(paths_.mmode, &read, error)) return false;
  if (!IsOurs(read)) {
    SetError(error, kNotParsed);
    ZLOG_ERROR("44064", "[%s] Failed to parse config file.\n", __func__);
    return false;
  }
  *message = std::move(read);
  return true;
}

bool ConfigFiles::HasMmodeCfgFile() const { return ::access(paths_.mmode.c_str(), F_OK) == 0; }

int ConfigFiles::DeleteHostConfigFile() {
  const std::lock_guard lock(mutex_);
  const int reason = RemoveFile(paths_.host_config);
  if (reason == 0) return 0;
  ZLOG_ERROR("44065", "[%s] Failed to delete host config file [%s]: %s\n", __func__,
             paths_.host_config.c_str(), GetErrMsg(reason).c_str());
  return -1;
}

int ConfigFiles::DeleteMmodeCfgFile() {
  const std::lock_guard lock(mutex_);
  const int reason = RemoveFile(paths_.mmode);
  if (reason == 0) return 0;
  ZLOG_ERROR("44065", "[%s] Failed to delete maintenance mode config file [%s]: %s\n", __func__,
             paths_.mmode.c_str(), GetErrMsg(reason).c_str());
  return -1;
}

int ConfigFiles::DeleteConfigFiles() {
  const int host_config = DeleteHostConfigFile();
  const int mmode = DeleteMmodeCfgFile();
  return host_config == 0 && mmode == 0 ? 0 : -1;
}

std::string Sha256Hex(std::string_view text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
  unsigned size = 0;
  if (EVP_Digest(text.data(), text.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) return {};
  constexpr const char* kDigits = "0123456789abcdef";
  std::string hex;
  hex.reserve(size * 2);
  for (unsigned i = 0; i < size; ++i) {
    hex += kDigits[digest[i] >> 4];
    hex += kDigits[digest[i] & 15];
  }
  return hex;
}

std::string ComputeChecksum(const HostConfigMsg& message) {
  std::string text;
  if (message.has_transport_node_id()) text += message.transport_node_id();
  if (message.has_id()) text += message.id();
  if (message.has_revision()) text += message.revision();
  return Sha256Hex(text);
}

}  // namespace zem::zema
