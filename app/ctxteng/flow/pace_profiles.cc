#include "app/ctxteng/flow/pace_profiles.h"

#include <algorithm>

#include "app/ctxteng/base/exceptions.h"
#include "framework/log/log.h"
#include "proto/context/agent_config.pb.h"

namespace Ctxt::PaceClient {
namespace {

using orlane::zem::context::ContextHostConfigMsg;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr uint32_t kGuestTopic = 2;
constexpr uint32_t kGuestMetricsTopic = 4;

constexpr KafkaProfileTexts kTexts = {
    .received = "Zemi: Received Upm callback, profileUpdateList size: %zu, fullSync: %s",
    .nothing = "Zemi: Full sync true and update size zero; ignore config",
    .entity = "Zemi: Processing TN entity id: %s",
    .foreign = "Zemi: UPM service callback with invalid entity type: %d. Ignored",
    .sizes = "Zemi: Size of new_profiles: %lu, old_profiles: %lu",
    .gone = "Zemi: Delete profile case, resetting config",
    .untyped = "Zemi: Config msg does not have a profile type",
    .type = "Zemi: profile type: %d; received.",
    .unexpected = "Zemi: Unexpected profile type: %d; ignored.",
    .failed = "Zemi: Exception in processing TN config updates. error: %s",
    .failed_unknown = "Zemi: Unknown exception in processing TN config updates",
    .agent_begin = "Zemi: DumpConfigKafka: --- <",
    .agent_end = "%s > --- Zemi DumpConfigKafka",
    .agent_updating = "Zemi: updating kafka end point and certificate",
    .agent_site = "Zemi: site id: %s has been set",
    .agent_no_site = "Zemi: missing site id in CommonAgentHostConfigMsg",
    .mux_begin = "Zemi: DumpMetricsMux: --- <",
    .mux_end = "%s > --- Zemi: DumpMetricsMux",
    .mux_updating = "Zemi: updating site id from mux ua profile",
    .mux_site = "Zemi: MetricsMuxUaProfileProtoMsg site id: %s has been set",
    .mux_no_site = "Zemi: missing site id in MetricsMuxUaProfileProtoMsg",
    .site_reset = "Zemi: reset site id done",
};

bool NamesTopic(const ContextHostConfigMsg& config) {
  return std::ranges::any_of(config.topic(), [](const auto& topic) {
    return (topic.type() == kGuestTopic || topic.type() == kGuestMetricsTopic) && !topic.name().empty();
  });
}

bool WantsCollection(const ContextHostConfigMsg& config) {
  if (!config.enabled_collection()) {
    ZLOG_INFO("Zemi: Data coll is disabled for context and flow in config msg");
    return false;
  }
  if (!NamesTopic(config)) {
    ZLOG_INFO("Zemi: No topics found in config msg or both topics are empty");
    return false;
  }
  ZLOG_INFO("Zemi: Non-empty topic found in config msg");
  return true;
}

}  // namespace

Pace::Profiles::Profiles(Pace& pace, KafkaOwner& kafka, SiteId& site)
    : KafkaProfiles(kTexts, kafka, site), pace_(pace) {}

bool Pace::Profiles::TakeOther(uint32_t type, const std::string& payload) {
  if (type != zem::upm::CONTEXT_HOST_CONFIG) return false;
  TakeHostConfig(payload);
  return true;
}

void Pace::Profiles::ForgetOther(uint32_t type) {
  if (type == zem::upm::CONTEXT_HOST_CONFIG) pace_.Reset();
}

void Pace::Profiles::TakeHostConfig(const std::string& payload) {
  ContextHostConfigMsg config;
  if (!config.ParseFromString(payload)) throw CtxtException("a host configuration cannot be parsed");
  ZLOG_INFO("HostConfigMsg dump --- <");
  ZLOG_INFO("Zemi: %s > --- End Zemi HostConfigMsg dump", config.ShortDebugString().c_str());
  if (WantsCollection(config)) {
    ZLOG_INFO("Zemi: Data coll in recvd config is enabled so updating local config");
    pace_.Update(config);
  } else if (pace_.collection_enabled()) {
    ZLOG_INFO(
        "Zemi: Data coll in recvd config is disabled and local config coll is enabled so resetting local "
        "config");
    pace_.Reset();
  } else {
    ZLOG_INFO(
        "Zemi: Data coll in recvd config is disabled and local config coll is disabled so nothing to do");
  }
}

}  // namespace Ctxt::PaceClient
