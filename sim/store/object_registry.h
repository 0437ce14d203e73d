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

/// What the store knows of its types: the message behind each, and which of its fields is the key.  The value
/// of a type that is not registered is taken as it stands, and is its own key.
///
/// Threads: register first, by one thread; then all operations from any.
class ObjectRegistry {
 public:
  /// Knows ScenarioObjectMsg and what the realization reads and writes.
  ObjectRegistry();

  /// Whether an object without its key field is refused, or is the one object that has none.
  enum class KeyRule { kRequired, kOptional };

  /// `prototype` lives forever.  An empty `key_field` means that there is one object of the type.  A field
  /// that the message does not have, or a repeated one, throws std::invalid_argument.
  void Register(ObjectType type, const google::protobuf::Message& prototype, const std::string& key_field,
                KeyRule rule = KeyRule::kRequired);

  /// Null for a type that is not registered.
  std::unique_ptr<google::protobuf::Message> New(ObjectType type) const;

  /// The key inside `object`.  BAD_VALUE when the bytes are no message of the type, INVALID_ARGUMENT when it
  /// has no key.
  rpc::Status Key(ObjectType type, const std::string& object, std::string* key) const;

  /// The bytes behind an object for people: protobuf text format for a registered type; "hex:" with digits,
  /// or "text:" with the bytes themselves, for any.  Nothing, and `error`, when it does not read so.
  std::optional<std::string> FromText(ObjectType type, std::string_view text, std::string* error) const;
  /// Text format, or "hex:" with digits where that cannot be.
  std::string ToText(ObjectType type, const std::string& object) const;

 private:
  struct Entry {
    const google::protobuf::Message* prototype;
    const google::protobuf::FieldDescriptor* key;  // null: one object
    KeyRule rule;
  };
  std::map<ObjectType, Entry> entries_;
};

/// Reads protobuf text format.  False, and `error` with the place and the cause, when it does not read so.
bool ParseMessageText(std::string_view text, google::protobuf::Message* message, std::string* error);

/// A name or number of the ObjectType enum.
std::optional<ObjectType> ParseObjectType(const std::string& text);

}  // namespace zem::sim
