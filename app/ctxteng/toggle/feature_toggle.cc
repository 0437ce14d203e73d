#include "app/ctxteng/toggle/feature_toggle.h"

#include <algorithm>
#include <utility>

#include "framework/log/log.h"
#include "platform/core/uuid.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/firewall_objects.pb.h"

namespace Ctxt {
namespace {

namespace store = orlane::zem::covedb;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

std::string IdOf(const store::SecurityFeatureToggleMsg& toggle) {
  if (toggle.id().first() == 0 && toggle.id().second() == 0) return {};
  return zem::UuidText(toggle.id());
}

}  // namespace

FeatureToggle::FeatureToggle(const SecurityFeature& feature, Effects effects)
    : feature_(feature), effects_(std::move(effects)) {}

void FeatureToggle::Reset() {
  std::lock_guard lock(mutex_);
  enabled_ = false;
  toggle_uuid_.clear();
  seen_ = true;
}

void FeatureToggle::Take(const Update& update) {
  if (update.object_type() != store::SECURITY_FEATURE_TOGGLE) {
    ZLOG_CTX_ERROR(354, "%s: CoveDB returned an incorrect msg type: %d, expecting %d", feature_.prefix,
                   static_cast<int>(update.object_type()), static_cast<int>(store::SECURITY_FEATURE_TOGGLE));
    return;
  }
  store::SecurityFeatureToggleMsg toggle;
  store::SecurityFeatureToggleOpMsg operation;
  if (!toggle.ParseFromString(update.object()) || !operation.ParseFromString(update.operation())) {
    ZLOG_WARN("%s: A feature toggle cannot be parsed, ignoring it", feature_.prefix);
    return;
  }
  ZLOG_TRACE("%s: sec feature data - %s, op data: %s", feature_.prefix, toggle.ShortDebugString().c_str(),
             operation.ShortDebugString().c_str());
  const std::string uuid = IdOf(toggle);
  if (uuid.empty()) {
    ZLOG_WARN("%s: invalid message ID is SecurityToggleFeatureMsg", feature_.prefix);
    return;
  }
  std::lock_guard lock(mutex_);
  switch (operation.operation()) {
    case store::ObjectOpMsg::SET:
      return Set(toggle, uuid);
    case store::ObjectOpMsg::DELETE:
      return Clear(uuid);
    default:
      ZLOG_CTX_ERROR(feature_.unknown_operation_tag,
                     "%s: mode not set from SecurityFeatureToggleMsg, unknown OP type", feature_.prefix);
  }
}

void FeatureToggle::Set(const store::SecurityFeatureToggleMsg& toggle, const std::string& uuid) {
  const auto entry = std::find_if(toggle.feature().begin(), toggle.feature().end(), [this](const auto& of) {
    return of.has_feature() && of.has_status() && of.feature() == feature_.number;
  });
  const bool found = entry != toggle.feature().end();
  const std::string before = std::exchange(toggle_uuid_, uuid);
  seen_ = true;
  if (found) {
    ZLOG_INFO("%s: Updating status to : %d, stored UUID: %s, prev: %s", feature_.prefix, entry->status(),
              toggle_uuid_.c_str(), before.c_str());
  } else {
    ZLOG_INFO("%s: Resetting status to false, stored UUID: %s, prev: %s", feature_.prefix,
              toggle_uuid_.c_str(), before.c_str());
  }
  Change(found && entry->status());
}

void FeatureToggle::Clear(const std::string& uuid) {
  if (uuid != toggle_uuid_) {
    ZLOG_INFO("%s: Ignore %s status clear for UUID: %s, stored: %s", feature_.prefix, feature_.name,
              uuid.c_str(), toggle_uuid_.c_str());
    return;
  }
  ZLOG_INFO("%s: Clear %s status for UUID: %s", feature_.prefix, feature_.name, uuid.c_str());
  toggle_uuid_.clear();
  Change(false);
}

void FeatureToggle::Change(bool enabled) {
  if (enabled == enabled_) {
    ZLOG_INFO("%s: mode remains unchanged with newly parsed SecFeatureToggleMsg", feature_.prefix);
    return;
  }
  enabled_ = enabled;
  if (effects_.changed) effects_.changed(enabled);
  ZLOG_INFO("%s: %s enable update detected, new config = %s, UUID: %s", feature_.prefix, feature_.prefix,
            enabled ? "enabled" : "disabled", toggle_uuid_.c_str());
  effects_.apply(enabled);
}

void FeatureToggle::StoreBegins() {
  std::lock_guard lock(mutex_);
  seen_ = toggle_uuid_.empty();
}

void FeatureToggle::StoreComplete() {
  std::lock_guard lock(mutex_);
  if (!std::exchange(seen_, true)) Clear(std::string(toggle_uuid_));
}

}  // namespace Ctxt
