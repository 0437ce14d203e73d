#pragma once

#include <google/protobuf/message.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/rpc/status.h"
#include "proto/covedb/covedb.pb.h"

namespace zem::sim {

using orlane::zem::covedb::ObjectType;

/// The types that the store knows: the message of each, and which of its fields is the key.  The value of a
/// type that is not registered is opaque, and is its own key.
///
/// Threads: register first, by one thread; then all operations from any.
class ObjectRegistry {
 public:
  /// Registers ScenarioObjectMsg and the types that the agent reads and writes.
  ObjectRegistry();

  /// Whether an object without its key field is refused, or is the only object that may lack it.
  enum class KeyRule { kRequired, kOptional };

  /// `prototype` has to live as long as the process.  An empty `key_field` means that there is only one
  /// object of the type.  An unknown or repeated field throws std::invalid_argument.
  void Register(ObjectType type, const google::protobuf::Message& prototype, const std::string& key_field,
                KeyRule rule = KeyRule::kRequired);

  /// Returns null for a type that is not registered.
  std::unique_ptr<google::protobuf::Message> New(ObjectType type) const;

  /// Extracts the key of `object`.  BAD_VALUE when the bytes are not a message of the type, INVALID_ARGUMENT
  /// when the message has no key.
  rpc::Status Key(ObjectType type, const std::string& object, std::string* key) const;

  /// Parses an object as people write it: protobuf text format for a registered type; "hex:" with digits, or
  /// "text:" with the bytes themselves, for any type.  Returns nothing and sets `error` when it cannot be
  /// parsed.
  std::optional<std::string> FromText(ObjectType type, std::string_view text, std::string* error) const;
  /// Formats an object as text format, or as "hex:" with digits where that is not possible.
  std::string ToText(ObjectType type, const std::string& object) const;

 private:
  struct Entry {
    const google::protobuf::Message* prototype;
    const google::protobuf::FieldDescriptor* key;  // null: there is only one object
    KeyRule rule;
  };
  std::map<ObjectType, Entry> entries_;
};

/// Parses protobuf text format.  On failure returns false and sets `error` to the position and the cause.
bool ParseMessageText(std::string_view text, google::protobuf::Message* message, std::string* error);

/// Parses a name or number of the ObjectType enum.
std::optional<ObjectType> ParseObjectType(const std::string& text);

}  // namespace zem::sim
