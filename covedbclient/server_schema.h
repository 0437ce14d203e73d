#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "proto/covedb/covedb.pb.h"

namespace zem::covedb {

using orlane::zem::covedb::ModifyRequestMsg;
using orlane::zem::covedb::ObjectType;

/// What is known of the object types of the store that is connected, and what modules demand of its version.
/// Only used when the client checks schemas.
///
/// Threads: none of its own; the owner guards it.
class ServerSchema {
 public:
  enum class CallState : uint32_t { kIdle = 0, kWaiting = 1, kAnswered = 2, kTimedOut = 3 };
  using ConstraintCallback = std::function<void(ObjectType)>;

  /// A new connection: nothing is checked.
  void Restart();
  bool checked() const { return checked_; }

  void SetSchemaState(CallState state) { schema_state_ = state; }
  void SetVersionState(CallState state) { version_state_ = state; }
  CallState schema_state() const { return schema_state_; }
  CallState version_state() const { return version_state_; }

  /// Keeps the text and takes the number of objects from it.
  void SetSchema(std::string text);
  void SetVersion(std::string version) { version_ = std::move(version); }

  /// True, and from then on `checked`, when enough has arrived to know the number of objects.
  bool CheckSchemaCallbackStates();

  /// A type that has a constraint keeps it.
  void SetVersionConstraint(ObjectType type, std::string version, ConstraintCallback on_failure);

  bool IsObjectInServerSchema(ObjectType type) const;

  /// False when the store is older than the type's constraint, which its callback learns, or when a
  /// version does not read as numbers.
  bool CheckVersionConstraint(ObjectType type) const;

  /// Removes the changes of types that the store does not know or is too old for.
  void ModifyMsgVersionCheck(std::list<ModifyRequestMsg>& requests) const;

  uint32_t objects() const { return objects_; }
  const std::string& version() const { return version_; }

 private:
  bool CheckServerSchemaVersionState();

  std::string version_;
  std::string schema_;
  std::map<ObjectType, std::pair<std::string, ConstraintCallback>> constraints_;
  CallState schema_state_ = CallState::kIdle;
  CallState version_state_ = CallState::kIdle;
  bool checked_ = false;
  uint32_t objects_ = 0;
};

/// The value of the last enumerator of "enum ObjectType" in a schema text; 0 when there is none that reads
/// so.
uint32_t CountSchemaObjects(std::string_view schema);

/// Negative, 0 or positive as `left` is older, equal or newer, as far as the shorter one goes; nothing when a
/// component that had to be read is no number.
std::optional<int> CompareVersions(std::string_view left, std::string_view right);

}  // namespace zem::covedb
