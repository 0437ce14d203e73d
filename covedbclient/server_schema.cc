#include "covedbclient/server_schema.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "covedbclient/client_log.h"
#include "covedbclient/modify_queue.h"

namespace zem::covedb {
namespace {

struct VersionObjects {
  std::string_view version;
  uint32_t objects;
};

// Stores of these versions may not tell their schema.
constexpr std::array kVersionObjects = {
    VersionObjects{"3.0.0", 178}, VersionObjects{"3.0.1", 178}, VersionObjects{"3.0.2", 179},
    VersionObjects{"3.0.3", 179}, VersionObjects{"3.1.0", 187}, VersionObjects{"3.1.1", 188},
    VersionObjects{"3.1.2", 188}, VersionObjects{"3.1.3", 188}, VersionObjects{"3.2.0", 217},
};

constexpr std::string_view kVersionWithoutAnswer = "3.0.0";
constexpr size_t kVersionKeyLength = 5;
constexpr std::string_view kBlanks = " \t\r\n";

std::optional<uint32_t> ParseNumber(std::string_view text) {
  uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::string_view TakeComponent(std::string_view& rest) {
  const size_t dot = rest.find('.');
  const std::string_view component = rest.substr(0, dot);
  rest = dot == std::string_view::npos ? std::string_view() : rest.substr(dot + 1);
  return component;
}

}  // namespace

uint32_t CountSchemaObjects(std::string_view schema) {
  constexpr std::string_view kBegin = "enum ObjectType {";
  const size_t begin = schema.find(kBegin);
  if (begin == std::string_view::npos) return 0;
  const size_t end = schema.find('}', begin);
  if (end == std::string_view::npos) return 0;
  std::string_view stretch = schema.substr(begin, end - begin);

  const size_t last_semicolon = stretch.rfind(';');
  if (last_semicolon == std::string_view::npos) return 0;
  stretch = stretch.substr(0, last_semicolon);
  const size_t before = stretch.rfind(';');
  std::string_view enumerator = before == std::string_view::npos ? stretch : stretch.substr(before + 1);

  const size_t equals = enumerator.find('=');
  if (equals == std::string_view::npos) return 0;
  std::string_view value = enumerator.substr(equals + 1);
  value = value.substr(0, value.find('='));
  const size_t first = value.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return 0;
  value = value.substr(first);
  return ParseNumber(value.substr(0, value.find_first_of(kBlanks))).value_or(0);
}

std::optional<int> CompareVersions(std::string_view left, std::string_view right) {
  do {
    const std::optional<uint32_t> l = ParseNumber(TakeComponent(left));
    const std::optional<uint32_t> r = ParseNumber(TakeComponent(right));
    if (!l || !r) return std::nullopt;
    if (*l != *r) return *l < *r ? -1 : 1;
  } while (!left.empty() && !right.empty());
  return 0;
}

void ServerSchema::Restart() {
  checked_ = false;
  schema_state_ = CallState::kIdle;
  version_state_ = CallState::kIdle;
}

void ServerSchema::SetSchema(std::string text) {
  schema_ = std::move(text);
  objects_ = CountSchemaObjects(schema_);
  ZLOG_DEBUG("Found %d objects in server schema", static_cast<int>(objects_));
}

bool ServerSchema::CheckSchemaCallbackStates() {
  ZLOG_DEBUG("schema callback state %d, schema version callback state %d", static_cast<int>(schema_state_),
             static_cast<int>(version_state_));
  if (schema_state_ != CallState::kAnswered && !CheckServerSchemaVersionState()) return false;
  checked_ = true;
  return true;
}

bool ServerSchema::CheckServerSchemaVersionState() {
  std::string_view key;
  if (version_state_ == CallState::kTimedOut) {
    key = kVersionWithoutAnswer;
  } else if (version_state_ == CallState::kAnswered) {
    key = std::string_view(version_).substr(0, kVersionKeyLength);
  }
  const auto row = std::find_if(kVersionObjects.begin(), kVersionObjects.end(),
                                [key](const VersionObjects& entry) { return entry.version == key; });
  if (row == kVersionObjects.end()) return false;
  objects_ = row->objects;
  ZLOG_DEBUG("Found %d objects in server schema", static_cast<int>(objects_));
  return true;
}

void ServerSchema::SetVersionConstraint(ObjectType type, std::string version, ConstraintCallback on_failure) {
  if (!constraints_.try_emplace(type, std::move(version), std::move(on_failure)).second) {
    ZLOG_DEBUG("Object type %s already inserted to version constraint map", ObjectType_Name(type).c_str());
  }
}

bool ServerSchema::IsObjectInServerSchema(ObjectType type) const {
  ZLOG_DEBUG("Checking object type %s in server schema", ObjectType_Name(type).c_str());
  if (objects_ == 0) {
    ZLOG_WARN("server schema not known yet!");
    return false;
  }
  return objects_ >= static_cast<uint32_t>(type);
}

bool ServerSchema::CheckVersionConstraint(ObjectType type) const {
  const auto constraint = constraints_.find(type);
  if (constraint == constraints_.end()) return true;
  const auto& [version, on_failure] = constraint->second;
  const std::optional<int> order = CompareVersions(version_, version);
  if (!order) return false;
  if (*order >= 0) return true;
  ZLOG_INFO("Version check fails for object %s, server schema version = %s,object version = %s",
            ObjectType_Name(type).c_str(), version_.c_str(), version.c_str());
  if (on_failure) on_failure(type);
  return false;
}

void ServerSchema::ModifyMsgVersionCheck(std::list<ModifyRequestMsg>& requests) const {
  RemoveChanges(requests, [this](const ModifyMsg& change) {
    const ObjectType type = ObjectTypeOf(change);
    if (!IsObjectInServerSchema(type)) {
      ZLOG_DEBUG("Removing object type %s from Modify, as as server schema does not support it",
                 ObjectType_Name(type).c_str());
      return true;
    }
    if (!CheckVersionConstraint(type)) {
      ZLOG_DEBUG("Removing object type %s from Modify due to version mismatch of object",
                 ObjectType_Name(type).c_str());
      return true;
    }
    return false;
  });
}

}  // namespace zem::covedb
