#include "app/zema/ports/port_data_files.h"

#include <cstring>

#include "app/zema/hostlib/dvs_data.h"
#include "app/zema/hostlib/port_props.h"
#include "app/zema/hostlib/switch_library.h"
#include "app/zema/ports/port_file.h"
#include "app/zema/ports/port_location.h"
#include "app/zema/ports/port_properties.h"
#include "framework/log/log.h"
#include "framework/node/host_identity.h"
#include "platform/wft/workflow_util.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

}  // namespace

std::string PortDataFiles::PersistPath(const std::string& dvs, const std::string& port) const {
  std::string path;
  const uint32_t result = library_.PortTextGet(dvs, port, port_props::kPersistPath, &path);
  if (result != 0 && result != kSwitchNotFound) {
    ZLOG_ERROR("44207", "[PortOp] Failed to read the file path of port [%s], error code [%s]", port.c_str(),
               SwitchErrorText(result).c_str());
  }
  return path;
}

std::optional<std::string> PortDataFiles::FileText(const std::string& dvs, const std::string& port,
                                                   const char* property) const {
  const std::string path = PersistPath(dvs, port);
  std::string bytes;
  DvsData data(library_);
  if (path.empty() || ReadPortFile(path, &bytes) != 0 || data.Deserialize(bytes) != 0) return std::nullopt;
  const auto text = data.Text(property);
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

bool PortDataFiles::SaveAgain(const char* operation, const std::string& dvs, const std::string& port,
                              const char* without) {
  const std::string path = PersistPath(dvs, port);
  if (path.empty()) return true;
  if (IsOfAnotherHost(path, dvs, port)) {
    ZLOG_INFO("[PortOp] %s: the file of port [%s] is the one of the host that its VM has gone to", operation,
              port.c_str());
    return true;
  }
  if (SavePortDataFile(path, dvs, port, without) == 0) return true;
  ZLOG_ERROR("44212", "[PortOp] %s: Error saving port file for port:[%s]", operation, port.c_str());
  return false;
}

// While a VM moves, both hosts see its folder, and the port may have the same name on both.  The file names
// the host that saved it last.  If this host has never saved its own port, a file of another host may date
// from before the VM came here; then the connection cookies decide: the host that made the port last has the
// younger one, by the hosts' clocks.
bool PortDataFiles::IsOfAnotherHost(const std::string& path, const std::string& dvs,
                                    const std::string& port) const {
  std::string bytes;
  DvsData file(library_);
  if (ReadPortFile(path, &bytes) != 0 || file.Deserialize(bytes) != 0) return false;
  const auto cookie = [](std::string_view value) {
    uint32_t seconds = 0;
    if (value.size() == sizeof(seconds)) std::memcpy(&seconds, value.data(), sizeof(seconds));
    return seconds;
  };
  const auto saved_by = file.Text(port_props::kSavedBy);
  if (const auto id = host_.id(); id && saved_by) {
    if (*saved_by == *id) return false;
    std::string mark;
    if (library_.PortTextGet(dvs, port, port_props::kSavedBy, &mark) == 0 && mark == *id) return true;
  }
  LibraryBuffer own;
  const auto theirs = file.Bytes(port_props::kConnectId);
  if (!theirs || library_.PortDataGet(dvs, port, port_props::kConnectId, &own) != 0) return false;
  return cookie(*theirs) > cookie(own.bytes());
}

void PortDataFiles::TakeFile(const PortLocation& at) {
  const std::string path = PersistPath(at.dvs, at.port);
  // A failure is logged; the port itself is correct.
  if (!path.empty() && IsOfAnotherHost(path, at.dvs, at.port)) {
    static_cast<void>(SaveNew(path, at.dvs, at.port));
  }
}

bool PortDataFiles::SaveNew(const std::string& path, const std::string& dvs, const std::string& port) {
  if (!MakePortFileDirectories(path)) {
    ZLOG_ERROR("44212", "[PortOp] CreatePort: Error creating port file directory for port:%s", port.c_str());
    return false;
  }
  if (SavePortDataFile(path, dvs, port) == 0) return true;
  ZLOG_ERROR("44212", "[PortOp] Error saving port data file for port:%s", port.c_str());
  // The file that remains may have been written by the host from which the VM came.
  if (host_.id()) static_cast<void>(properties_.ClearPortExtraConfig(dvs, port, port_props::kSavedBy));
  return false;
}

int PortDataFiles::SavePortDataFile(const std::string& path, const std::string& dvs, const std::string& port,
                                    const char* without) {
  const auto span = wft::WorkflowUtil::StartChildSpan("PortOpsManager.SavePortDataFile", wft::kTraceInfo);
  wft::WorkflowUtil::SetCurSpanTag("portFilePath", path);
  wft::WorkflowUtil::SetCurSpanTag("dvsId", dvs);
  wft::WorkflowUtil::SetCurSpanTag("dvpId", port);
  if (path.empty()) {
    ZLOG_ERROR("44212", "[PortOp] Port File Path is empty");
    return -1;
  }
  LibraryBuffer state;
  DvsData data(library_);
  const auto id = host_.id();
  bool marked = true;
  uint32_t result = library_.PersistentPortStateGet(dvs, port, &state);
  if (result == 0 && (without != nullptr || id)) {
    result = data.Deserialize(state.bytes());
    if (result == 0 && without != nullptr) result = data.Remove(without);
    if (result == 0 && id) {
      marked = data.Text(port_props::kSavedBy) == *id;
      if (!marked) result = data.UpdateText(port_props::kSavedBy, *id);
    }
    LibraryBuffer changed;
    if (result == 0) result = data.Serialize(&changed);
    if (result == 0) state = std::move(changed);
  }
  if (result != 0) {
    ZLOG_ERROR("44212", "[PortOp] Failed to get persistent data of port [%s], error code [%s]", port.c_str(),
               SwitchErrorText(result).c_str());
    return -1;
  }
  if (WritePortFile(path, state.bytes()) != 0) return -2;
  // A failure is logged; the file has the id in any case.
  if (!marked) static_cast<void>(properties_.SetPortExtraConfig(dvs, port, port_props::kSavedBy, *id));
  return 0;
}

bool PortDataFiles::UpdateExtraConfigInPortDataFile(const std::string& path, const std::string& key,
                                                    const std::string* value) {
  const char* const operation = __func__;
  std::string bytes;
  const int failed = ReadPortFile(path, &bytes);
  if (failed != 0) {
    ZLOG_ERROR("44206", "[%s] Port [%s] file read failed: %d", operation, path.c_str(), failed);
    return false;
  }
  DvsData data(library_);
  uint32_t result = data.Deserialize(bytes);
  if (result != 0) {
    ZLOG_ERROR("44206", "[%s] Deserilize port data from [%s] failed: %u", operation, path.c_str(), result);
    return false;
  }
  result = value == nullptr ? data.Remove(key.c_str()) : data.UpdateText(key.c_str(), *value);
  ZLOG_INFO("[%s] in-memory port data [%s] of extraconfig [%s] status: [%u]", operation, path.c_str(),
            key.c_str(), result);
  if (result == kSwitchNotFound) return true;
  if (result != 0) return false;
  LibraryBuffer serialized;
  result = data.Serialize(&serialized);
  if (result != 0) {
    ZLOG_ERROR("44203", "[%s] port data serialize failed, error code [%u]", operation, result);
    return false;
  }
  const int written = WritePortFile(path, serialized.bytes());
  if (written != 0) {
    ZLOG_ERROR("44212", "[%s] Error saving port data to file, error code [%u]", operation,
               static_cast<uint32_t>(written));
    return false;
  }
  ZLOG_INFO("[%s] Saved port data to file successfully", operation);
  return true;
}

}  // namespace zem::zema
