#include "app/ctxteng/kafka/kafka_profiles.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

#include "app/ctxteng/kafka/kafka_owner.h"
#include "app/ctxteng/kafka/site_id.h"
#include "framework/log/log.h"
#include "platform/core/uuid.h"
#include "proto/context/agent_config.pb.h"

// A profile that is gone is told by an update that has it in its old list and not in its new one.  The types
// are looked at one by one: the service tells of brokers and of the site separately, and does not repeat what
// has not changed.

namespace Ctxt {
namespace {

using orlane::zem::context::CommonAgentHostConfigMsg;
using orlane::zem::context::MetricsMuxUaProfileProtoMsg;
using zem::upm::Profile;
using zem::upm::ProfileUpdate;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

template <class Message>
Message Parse(const std::string& payload, const char* what) {
  Message message;
  if (!message.ParseFromString(payload)) throw std::runtime_error(std::string(what) + " cannot be parsed");
  return message;
}

const char* Presence(bool present) { return present ? "Present" : "Absent"; }

// Never the certificate itself.
std::string Dump(const CommonAgentHostConfigMsg& config) {
  return std::string("End point: ") + Presence(config.end_point_size() != 0) +
         ", Trust store: " + Presence(config.has_trust_store()) +
         ", Certificate: " + Presence(config.has_certificate()) +
         ", site id: " + Presence(config.has_site_id());
}

bool Has(const std::vector<Profile>& profiles, uint32_t type) {
  return std::ranges::any_of(profiles, [type](const Profile& profile) { return profile.type == type; });
}

}  // namespace

template <class Work>
void KafkaProfiles::Contain(const Work& work) {
  try {
    work();
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(351, texts_.failed, error.what());
  } catch (...) {
    ZLOG_CTX_ERROR(351, "%s", texts_.failed_unknown);
  }
}

void KafkaProfiles::Take(const std::vector<ProfileUpdate>& updates, bool full_sync) {
  ZLOG_INFO(texts_.received, updates.size(), full_sync ? "TRUE" : "FALSE");
  if (full_sync && updates.empty()) {
    ZLOG_INFO("%s", texts_.nothing);
    return;
  }
  for (const ProfileUpdate& update : updates) {
    if (texts_.entity != nullptr) ZLOG_INFO(texts_.entity, update.entity_id.c_str());
    if (update.entity_type != zem::upm::ENTITY_TRANSPORT_NODE) {
      ZLOG_WARN(texts_.foreign, static_cast<int>(update.entity_type));
      return;
    }
    TakeUpdate(update);
  }
}

void KafkaProfiles::TakeUpdate(const ProfileUpdate& update) {
  ZLOG_INFO(texts_.sizes, update.new_profiles.size(), update.old_profiles.size());
  Contain([&] { TakeGone(update); });
  for (const Profile& profile : update.new_profiles) {
    Contain([&] { TakeProfile(profile); });
  }
}

void KafkaProfiles::TakeGone(const ProfileUpdate& update) {
  bool said = false;
  const auto say = [&] {
    if (!std::exchange(said, true)) ZLOG_INFO("%s", texts_.gone);
  };
  bool typed = false;
  for (const Profile& profile : update.old_profiles) {
    if (!profile.type) continue;
    typed = true;
    if (Has(update.new_profiles, *profile.type)) continue;
    say();
    Forget(*profile.type);
  }
  if (!update.new_profiles.empty() || typed) return;
  say();
  ForgetAll();
}

void KafkaProfiles::Forget(uint32_t type) {
  switch (type) {
    case zem::upm::COMMON_AGENT_HOST_CONFIG:
      return ForgetBrokers();
    case zem::upm::METRICS_MUX_ON_UA_PROFILE:
      return ForgetSite();
    default:
      return ForgetOther(type);
  }
}

void KafkaProfiles::ForgetSite() {
  site_.Forget();
  ZLOG_INFO("%s", texts_.site_reset);
}

void KafkaProfiles::ForgetBrokers() {
  kafka_.ForgetBrokers();
  ForgetSite();
}

void KafkaProfiles::ForgetAll() { ForgetBrokers(); }
void KafkaProfiles::ForgetOther(uint32_t) {}
bool KafkaProfiles::TakeOther(uint32_t, const std::string&) { return false; }

void KafkaProfiles::TakeProfile(const Profile& profile) {
  if (!profile.type) {
    ZLOG_WARN("%s", texts_.untyped);
    return;
  }
  ZLOG_INFO(texts_.type, static_cast<int>(*profile.type));
  switch (*profile.type) {
    case zem::upm::COMMON_AGENT_HOST_CONFIG:
      return TakeCommonAgent(profile.payload);
    case zem::upm::METRICS_MUX_ON_UA_PROFILE:
      return TakeMetricsMux(profile.payload);
    default:
      if (!TakeOther(*profile.type, profile.payload))
        ZLOG_WARN(texts_.unexpected, static_cast<int>(*profile.type));
  }
}

void KafkaProfiles::TakeCommonAgent(const std::string& payload) {
  const auto config = Parse<CommonAgentHostConfigMsg>(payload, "A common agent profile");
  ZLOG_INFO("%s", texts_.agent_begin);
  ZLOG_INFO(texts_.agent_end, Dump(config).c_str());
  if (texts_.agent_updating != nullptr) ZLOG_INFO("%s", texts_.agent_updating);
  kafka_.Rebuild([&](KafkaConfig& settings) { UpdateFromCommonAgent(&settings, config); });
  if (!config.has_site_id()) {
    ZLOG_WARN("%s", texts_.agent_no_site);
    return;
  }
  site_.Set({config.site_id().first(), config.site_id().second()});
  ZLOG_INFO(texts_.agent_site, zem::UuidText(config.site_id()).c_str());
}

void KafkaProfiles::TakeMetricsMux(const std::string& payload) {
  const auto config = Parse<MetricsMuxUaProfileProtoMsg>(payload, "A metrics profile");
  ZLOG_INFO("%s", texts_.mux_begin);
  ZLOG_INFO(texts_.mux_end, ("Site id: " + config.site_id()).c_str());
  if (texts_.mux_updating != nullptr) ZLOG_INFO("%s", texts_.mux_updating);
  const auto site = zem::ParseUuid(config.site_id());
  if (!site) {
    ZLOG_WARN("%s", texts_.mux_no_site);
    return;
  }
  site_.Set(zem::UuidHalves(*site));
  ZLOG_INFO(texts_.mux_site, config.site_id().c_str());
}

}  // namespace Ctxt
