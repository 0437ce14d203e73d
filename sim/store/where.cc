#include "sim/store/where.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/text_format.h>

#include <charconv>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "sim/store/object_registry.h"

namespace zem::sim {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using orlane::zem::covedb::StatementMsg;
using orlane::zem::covedb::WhereMsg;
using rpc::Status;
using rpc::StatusCode;
using Path = std::vector<const FieldDescriptor*>;

// Returns nothing when the path does not lead to a field.
std::optional<Path> Resolve(const Message& prototype, std::string_view text) {
  Path path;
  const google::protobuf::Descriptor* level = prototype.GetDescriptor();
  while (level != nullptr) {
    const size_t dot = text.find('.');
    const FieldDescriptor* const field = level->FindFieldByName(std::string(text.substr(0, dot)));
    if (field == nullptr) return std::nullopt;
    path.push_back(field);
    if (dot == std::string_view::npos) {
      return field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE ? std::nullopt : std::optional(path);
    }
    text.remove_prefix(dot + 1);
    level = field->message_type();
  }
  return std::nullopt;
}

bool IsNumber(const FieldDescriptor& field) {
  switch (field.cpp_type()) {
    case FieldDescriptor::CPPTYPE_STRING:
    case FieldDescriptor::CPPTYPE_ENUM:
    case FieldDescriptor::CPPTYPE_BOOL:
    case FieldDescriptor::CPPTYPE_MESSAGE:
      return false;
    default:
      return true;
  }
}

std::optional<long double> ParseNumber(std::string_view text) {
  long double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::string ValueText(const Message& message, const FieldDescriptor& field, int index) {
  const google::protobuf::Reflection& reflection = *message.GetReflection();
  if (field.cpp_type() == FieldDescriptor::CPPTYPE_STRING) {
    return index < 0 ? reflection.GetString(message, &field)
                     : reflection.GetRepeatedString(message, &field, index);
  }
  std::string text;
  google::protobuf::TextFormat::PrintFieldValueToString(message, &field, index, &text);
  return text;
}

template <class Value>
bool Compare(WhereMsg::Operator op, const Value& left, const Value& right) {
  switch (op) {
    case WhereMsg::EQUAL:
      return left == right;
    case WhereMsg::NOT_EQUAL:
      return left != right;
    case WhereMsg::LESS:
      return left < right;
    case WhereMsg::GREATER:
      return left > right;
    case WhereMsg::PREFIX:
      break;
  }
  return false;
}

bool Holds(const WhereMsg& where, const FieldDescriptor& field, const std::string& value) {
  if (where.op() == WhereMsg::PREFIX) return value.compare(0, where.value().size(), where.value()) == 0;
  if (!IsNumber(field)) return Compare(where.op(), value, where.value());
  const std::optional<long double> left = ParseNumber(value);
  const std::optional<long double> right = ParseNumber(where.value());
  return left && right && Compare(where.op(), *left, *right);
}

bool Holds(const WhereMsg& where, const Message& message, const Path& path, size_t depth) {
  const FieldDescriptor& field = *path[depth];
  const google::protobuf::Reflection& reflection = *message.GetReflection();
  const bool leaf = depth + 1 == path.size();
  if (!field.is_repeated()) {
    if (!reflection.HasField(message, &field)) return leaf && where.op() == WhereMsg::NOT_EQUAL;
    return leaf ? Holds(where, field, ValueText(message, field, -1))
                : Holds(where, reflection.GetMessage(message, &field), path, depth + 1);
  }
  for (int i = 0; i < reflection.FieldSize(message, &field); ++i) {
    const bool holds = leaf
                           ? Holds(where, field, ValueText(message, field, i))
                           : Holds(where, reflection.GetRepeatedMessage(message, &field, i), path, depth + 1);
    if (holds) return true;
  }
  return false;
}

}  // namespace

Status CheckStatement(const ObjectRegistry& registry, const StatementMsg& statement) {
  const auto refuse = [](std::string text) { return Status(StatusCode::kInvalidArgument, std::move(text)); };
  if (statement.object_type() == ObjectType::OBJECT_TYPE_NONE)
    return refuse("the statement names no object type");
  if (statement.where().empty()) return Status();
  const std::unique_ptr<Message> prototype = registry.New(statement.object_type());
  if (!prototype) return refuse("conditions on a type whose message the store does not know");
  for (const WhereMsg& where : statement.where()) {
    const std::optional<Path> path = Resolve(*prototype, where.path());
    if (!path) return refuse("no field \"" + where.path() + "\"");
    if (!where.has_op()) return refuse("a condition without operator");
    if (where.op() != WhereMsg::PREFIX && IsNumber(*path->back()) && !ParseNumber(where.value())) {
      return refuse("\"" + where.value() + "\" is no number");
    }
  }
  return Status();
}

bool Matches(const ObjectRegistry& registry, const StatementMsg& statement, const std::string& object) {
  if (statement.where().empty()) return true;
  const std::unique_ptr<Message> message = registry.New(statement.object_type());
  if (!message || !message->ParsePartialFromString(object)) return false;
  for (const WhereMsg& where : statement.where()) {
    const std::optional<Path> path = Resolve(*message, where.path());
    if (path && Holds(where, *message, *path, 0)) return true;
  }
  return false;
}

}  // namespace zem::sim
