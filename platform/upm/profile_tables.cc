#include "platform/upm/profile_tables.h"

#include <algorithm>

#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/profile_objects.pb.h"

namespace zem::upm {
namespace {

namespace proto = orlane::zem::covedb;

bool IsDelete(const proto::MonitorUpdateMsg& update) {
  proto::ObjectOpMsg operation;
  return operation.ParseFromString(update.operation()) && operation.operation() == proto::ObjectOpMsg::DELETE;
}

// A removed object is told by its old value.
template <class Message>
bool Parse(const proto::MonitorUpdateMsg& update, bool removed, Message* message) {
  const bool old = removed && !update.old_object().empty();
  return message->ParseFromString(old ? update.old_object() : update.object());
}

}  // namespace

bool ProfileTables::Apply(const proto::MonitorUpdateMsg& update) {
  const bool removed = IsDelete(update);
  if (update.object_type() == proto::PROFILE) {
    proto::ProfileMsg message;
    if (!Parse(update, removed, &message)) return false;
    if (removed) {
      profiles_.erase(message.id());
      return true;
    }
    Profile& profile = profiles_[message.id()];
    profile = {std::nullopt, message.tag(), message.payload()};
    if (message.has_type()) profile.type = message.type();
    return true;
  }
  if (update.object_type() != proto::PROFILE_BINDING) return false;
  proto::ProfileBindingMsg message;
  if (!Parse(update, removed, &message)) return false;
  if (removed) {
    bindings_.erase(message.entity_id());
  } else {
    bindings_[message.entity_id()] = {message.entity_type(),
                                      {message.profile_id().begin(), message.profile_id().end()}};
  }
  return true;
}

bool ProfileTables::IsRepetition(const proto::MonitorUpdateMsg& update) const {
  if (IsDelete(update) || !update.old_object().empty()) return false;
  proto::ProfileMsg profile;
  proto::ProfileBindingMsg binding;
  if (update.object_type() == proto::PROFILE) {
    return profile.ParseFromString(update.object()) && profiles_.count(profile.id()) != 0;
  }
  return binding.ParseFromString(update.object()) && bindings_.count(binding.entity_id()) != 0;
}

ProfileTables::Effective ProfileTables::Of(uint32_t entity_type, const std::vector<uint32_t>& types) const {
  Effective effective;
  for (const auto& [entity, binding] : bindings_) {
    if (binding.entity_type != entity_type) continue;
    for (const std::string& id : binding.profiles) {
      const auto profile = profiles_.find(id);
      if (profile == profiles_.end()) continue;
      // A profile without a type is shown to everybody: only its user can say what is wrong with it.
      const auto& type = profile->second.type;
      if (type && std::find(types.begin(), types.end(), *type) == types.end()) continue;
      effective[entity].push_back(profile->second);
    }
  }
  return effective;
}

}  // namespace zem::upm
