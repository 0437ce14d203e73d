#include "mpaclient/unified_layout.h"

#include <google/protobuf/message.h>

#include <stdexcept>

#include "mpaclient/verticals.h"

namespace zem {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

const FieldDescriptor* Optional(const Message& prototype, const char* name) {
  return prototype.GetDescriptor()->FindFieldByName(name);
}

const FieldDescriptor* Required(const Message& prototype, const char* name) {
  const FieldDescriptor* field = Optional(prototype, name);
  if (field == nullptr) {
    throw std::logic_error("no member " + std::string(name) + " in " + prototype.GetTypeName());
  }
  return field;
}

}  // namespace

const UnifiedLayout& UnifiedLayout::Of(const Vertical& vertical) {
  static const auto layouts = [] {
    std::vector<UnifiedLayout> all;
    all.reserve(AllVerticals().size());
    for (const Vertical& each : AllVerticals()) all.emplace_back(each);
    return all;
  }();
  return layouts[static_cast<size_t>(vertical.id)];
}

UnifiedLayout::UnifiedLayout(const Vertical& vertical) : vertical_(vertical) {
  const Message& mp = vertical.mp_prototype();
  const Message& host = vertical.host_prototype();
  mp_type_ = Required(mp, "type");
  host_type_ = Required(host, "type");
  // A vertical without the handshake may still have the member.
  mp_app_init_ = vertical.traits.needs_app_init ? Required(mp, "app_init") : Optional(mp, "app_init");
  mp_app_init_config_ack_ = vertical.traits.needs_app_init ? Required(mp, "app_init_config_ack") : nullptr;
  host_app_init_config_ = vertical.traits.needs_app_init ? Required(host, "app_init_config") : nullptr;
  mp_raw_ = vertical.types.empty() ? Required(mp, "raw_payload") : nullptr;
  host_raw_ = vertical.types.empty() ? Required(host, "raw_payload") : nullptr;
  for (const VerticalType& type : vertical.types) {
    members_.push_back({type.type_name, type.inbound_only ? nullptr : Required(mp, type.member),
                        Required(host, type.member)});
  }
}

std::unique_ptr<Message> UnifiedLayout::NewMp(const std::string& type_name) const {
  std::unique_ptr<Message> unified(vertical_.mp_prototype().New());
  unified->GetReflection()->SetString(unified.get(), mp_type_, type_name);
  return unified;
}

std::unique_ptr<Message> UnifiedLayout::NewHost() const {
  return std::unique_ptr<Message>(vertical_.host_prototype().New());
}

Message* UnifiedLayout::MutableMpMember(Message* unified, std::string_view type_name) const {
  const FieldDescriptor* field = mp_raw_;
  if (field != nullptr) {
    // Every type of this vertical travels as bytes.
  } else if (type_name == kAppInitType) {
    field = mp_app_init_;
  } else if (type_name == kAppInitConfigAckType) {
    field = mp_app_init_config_ack_;
  } else {
    for (const Member& member : members_) {
      if (member.type_name == type_name) field = member.mp;
    }
  }
  return field != nullptr ? unified->GetReflection()->MutableMessage(unified, field) : nullptr;
}

const Message* UnifiedLayout::HostMember(const Message& unified) const {
  const auto* reflection = unified.GetReflection();
  if (const Message* config = HostAppInitConfig(unified)) return config;
  if (host_raw_ != nullptr) {
    return reflection->HasField(unified, host_raw_) ? &reflection->GetMessage(unified, host_raw_) : nullptr;
  }
  for (const Member& member : members_) {
    if (reflection->HasField(unified, member.host)) return &reflection->GetMessage(unified, member.host);
  }
  return nullptr;
}

const Message* UnifiedLayout::HostAppInitConfig(const Message& unified) const {
  if (host_app_init_config_ == nullptr) return nullptr;
  const auto* reflection = unified.GetReflection();
  if (!reflection->HasField(unified, host_app_init_config_)) return nullptr;
  return &reflection->GetMessage(unified, host_app_init_config_);
}

std::string UnifiedLayout::HostType(const Message& unified) const {
  return unified.GetReflection()->GetString(unified, host_type_);
}

}  // namespace zem
