#include "app/zema/covedb/config_files.h"

#include <google/protobuf/message.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <array>
#include <cerrno>
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
