#include <cstdint>
#include <cstdlib>
#include <string>

#include "app/ctxteng/flow/collection_settings.h"
#include "app/ctxteng/kafka/kafka_owner.h"
#include "app/ctxteng/kafka/kafka_profiles.h"
#include "app/ctxteng/kafka/site_id.h"
#include "proto/context/agent_config.pb.h"
#include "tests/support/silent_log.h"

namespace {

constexpr Ctxt::KafkaProfileTexts kTexts = {"%zu %s", "",   "%s", "%d", "%lu %lu", "", "",   "%d",
                                            "%d",     "%s", "",   "",   "%s",      "", "%s", "",
                                            "",       "%s", "",   "%s", "",        ""};

}  // namespace

// A profile of any type and content, as the store's profiles carry it.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  zem::test::SilenceLog();
  const uint32_t type = data[0] % 32;
  const std::string payload(reinterpret_cast<const char*>(data + 1), size - 1);
  orlane::zem::context::CommonAgentHostConfigMsg agent;
  // A certificate would be written to wherever the profile says.
  if (type == zem::upm::COMMON_AGENT_HOST_CONFIG && agent.ParseFromString(payload) &&
      !agent.certificate().empty()) {
    return 0;
  }
  Ctxt::PaceClient::KafkaDeliveries deliveries;
  Ctxt::PaceClient::KafkaOwner kafka(nullptr, deliveries);
  Ctxt::SiteId site;
  Ctxt::KafkaProfiles profiles(kTexts, kafka, site);
  profiles.Take({{zem::upm::ENTITY_TRANSPORT_NODE, "node", {{type, "", payload}}, {}}}, true);
  if (kafka.client() != nullptr && kafka.client()->IsReady()) std::abort();
  profiles.Take({{zem::upm::ENTITY_TRANSPORT_NODE, "node", {}, {{type, "", payload}}}}, false);
  profiles.Take({{zem::upm::ENTITY_TRANSPORT_NODE, "node", {}, {}}}, false);
  if (kafka.client() != nullptr || site.Get() != Ctxt::SiteId::Halves()) std::abort();

  orlane::zem::context::ContextHostConfigMsg config;
  if (!config.ParseFromString(payload)) return 0;
  Ctxt::PaceClient::CollectionSettings settings;
  settings.Take(config);
  if (settings.collection_interval_ms < 60000 || settings.collection_interval_ms % 60000 != 0) std::abort();
  return 0;
}
