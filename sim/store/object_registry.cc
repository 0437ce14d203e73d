#include "sim/store/object_registry.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>

#include <charconv>
#include <stdexcept>

#include "proto/covedb/firewall_objects.pb.h"
#include "proto/covedb/introspection_objects.pb.h"
#include "proto/covedb/inventory_objects.pb.h"
#include "proto/covedb/monitoring_objects.pb.h"
#include "proto/covedb/profile_objects.pb.h"
#include "proto/covedb/runtime_objects.pb.h"
#include "proto/covedb/scenario.pb.h"
#include "proto/covedb/switching_objects.pb.h"
#include "sim/control/hex.h"

namespace zem::sim {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using rpc::Status;
using rpc::StatusCode;

constexpr std::string_view kHex = "hex:";
constexpr std::string_view kText = "text:";

// Returns the field's encoded bytes, so that a field of any type can be the key.
std::string KeyBytes(const Message& message, const FieldDescriptor& field) {
  const google::protobuf::Reflection& reflection = *message.GetReflection();
  if (field.cpp_type() == FieldDescriptor::CPPTYPE_STRING) return reflection.GetString(message, &field);
  if (field.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) {
    return reflection.GetMessage(message, &field).SerializeAsString();
  }
  std::string text;
  google::protobuf::TextFormat::PrintFieldValueToString(message, &field, -1, &text);
  return text;
}

class FirstError final : public google::protobuf::io::ErrorCollector {
 public:
  void AddError(int line, int column, const std::string& message) override {
    if (text.empty()) {
      text = "line " + std::to_string(line + 1) + ", column " + std::to_string(column + 1) + ": " + message;
    }
  }
  std::string text;
};

}  // namespace

ObjectRegistry::ObjectRegistry() {
  namespace proto = orlane::zem::covedb;
  Register(ObjectType::SCENARIO_OBJECT, proto::ScenarioObjectMsg::default_instance(), "id");
  Register(ObjectType::TRANSPORT_NODE_CONFIG, proto::TransportNodeConfigMsg::default_instance(), "id");
  Register(ObjectType::VIF_STATE, proto::VifStateMsg::default_instance(), "vif_id");
  Register(ObjectType::BARRIER, proto::BarrierMsg::default_instance(), "");
  Register(ObjectType::PROCESSED_BARRIER, proto::ProcessedBarrierMsg::default_instance(), "component",
           KeyRule::kOptional);
  Register(ObjectType::HOST_CONFIG, proto::HostConfigMsg::default_instance(), "id");
  Register(ObjectType::CONTROLLER_INFO, proto::ControllerInfoMsg::default_instance(), "uuid");
  Register(ObjectType::MAINTENANCE_MODE_CONFIG, proto::MaintenanceModeConfigMsg::default_instance(), "id");
  Register(ObjectType::REALIZED_HOST_CONFIG, proto::RealizedHostConfigMsg::default_instance(), "id");
  Register(ObjectType::RUNTIME_STATUS, proto::RuntimeStatusMsg::default_instance(), "status");
  Register(ObjectType::GI_SOLUTION_INFO, proto::GiSolutionInfoMsg::default_instance(), "");
  Register(ObjectType::VM_GROUP_RELATION, proto::VmGroupRelationMsg::default_instance(), "vm_id");
  Register(ObjectType::CONTEXT_PROFILE, proto::ContextProfileMsg::default_instance(), "id");
  Register(ObjectType::RULE, proto::RuleMsg::default_instance(), "id");
  Register(ObjectType::RULE_SECTION, proto::RuleSectionMsg::default_instance(), "id");
  Register(ObjectType::VM_CONFIG, proto::VmConfigMsg::default_instance(), "id");
  Register(ObjectType::DA_VIF, proto::DaVifMsg::default_instance(), "vif_id");
  Register(ObjectType::SECURITY_FEATURE_TOGGLE, proto::SecurityFeatureToggleMsg::default_instance(), "id");
  Register(ObjectType::PROFILE, proto::ProfileMsg::default_instance(), "id");
  Register(ObjectType::PROFILE_BINDING, proto::ProfileBindingMsg::default_instance(), "entity_id");
  Register(ObjectType::OPAQUE_LOG_SWITCH_CONFIG, proto::OpaqueLogSwitchConfigMsg::default_instance(), "id");
  Register(ObjectType::IP_REPUTATION_RECORD_EVENT, proto::IpReputationRecordEventMsg::default_instance(), "");
  Register(ObjectType::GLOBAL_CONFIG, proto::GlobalConfigMsg::default_instance(), "");
  Register(ObjectType::EVENT_CONFIG, proto::EventConfigMsg::default_instance(), "name");
  Register(ObjectType::DATA_COLLECTION_CONFIG, proto::DataCollectionConfigMsg::default_instance(),
           "feature_stack_name");
  Register(ObjectType::GLOBAL_COLLECTION_CONFIGURATION,
           proto::GlobalCollectionConfigurationMsg::default_instance(), "");
  Register(ObjectType::USER_DEFINED_FEATURE_STACK_COLLECTION_CONFIGURATION,
           proto::UserDefinedFeatureStackCollectionConfigurationMsg::default_instance(),
           "feature_stack_name");
}

void ObjectRegistry::Register(ObjectType type, const Message& prototype, const std::string& key_field,
                              KeyRule rule) {
  const FieldDescriptor* key = nullptr;
  if (!key_field.empty()) {
    key = prototype.GetDescriptor()->FindFieldByName(key_field);
    if (key == nullptr || key->is_repeated()) {
      throw std::invalid_argument(prototype.GetTypeName() + " has no single field " + key_field);
    }
  }
  entries_[type] = Entry{&prototype, key, rule};
}

std::unique_ptr<Message> ObjectRegistry::New(ObjectType type) const {
  const auto entry = entries_.find(type);
  return entry == entries_.end() ? nullptr : std::unique_ptr<Message>(entry->second.prototype->New());
}

Status ObjectRegistry::Key(ObjectType type, const std::string& object, std::string* key) const {
  const auto entry = entries_.find(type);
  if (entry == entries_.end()) {
    *key = object;
    return Status();
  }
  const std::unique_ptr<Message> message = New(type);
  if (!message->ParsePartialFromString(object)) {
    return Status(StatusCode::kBadValue, "the object is no " + message->GetTypeName());
  }
  const FieldDescriptor* const field = entry->second.key;
  if (field == nullptr) {
    key->clear();
    return Status();
  }
  if (!message->GetReflection()->HasField(*message, field)) {
    if (entry->second.rule == KeyRule::kOptional) {
      key->clear();
      return Status();
    }
    return Status(StatusCode::kInvalidArgument, "the object has no key \"" + field->name() + "\"");
  }
  *key = KeyBytes(*message, *field);
  return Status();
}

std::optional<std::string> ObjectRegistry::FromText(ObjectType type, std::string_view text,
                                                    std::string* error) const {
  if (text.substr(0, kText.size()) == kText) return std::string(text.substr(kText.size()));
  if (text.substr(0, kHex.size()) == kHex) {
    std::optional<std::string> bytes = FromHex(text.substr(kHex.size()));
    if (!bytes) *error = "hex: wants pairs of hexadecimal digits";
    return bytes;
  }
  const std::unique_ptr<Message> message = New(type);
  if (!message) {
    *error = "the type is not registered: the object has to begin with hex: or text:";
    return std::nullopt;
  }
  if (!ParseMessageText(text, message.get(), error)) return std::nullopt;
  return message->SerializeAsString();
}

std::string ObjectRegistry::ToText(ObjectType type, const std::string& object) const {
  const std::unique_ptr<Message> message = New(type);
  if (!message || !message->ParsePartialFromString(object)) return std::string(kHex) + ToHex(object);
  return message->ShortDebugString();
}

bool ParseMessageText(std::string_view text, Message* message, std::string* error) {
  FirstError collector;
  google::protobuf::TextFormat::Parser parser;
  parser.RecordErrorsTo(&collector);
  if (parser.ParseFromString(std::string(text), message)) return true;
  *error = collector.text;
  return false;
}

std::optional<ObjectType> ParseObjectType(const std::string& text) {
  ObjectType type;
  if (orlane::zem::covedb::ObjectType_Parse(text, &type)) return type;
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  if (!orlane::zem::covedb::ObjectType_IsValid(number)) return std::nullopt;
  return static_cast<ObjectType>(number);
}

}  // namespace zem::sim
