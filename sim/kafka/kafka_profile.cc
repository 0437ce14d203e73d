#include "sim/kafka/kafka_profile.h"

#include <google/protobuf/text_format.h>

#include <sstream>
#include <utility>

#include "proto/context/agent_config.pb.h"
#include "proto/covedb/profile_objects.pb.h"
#include "sim/control/command_table.h"
#include "sim/control/json.h"
#include "sim/kafka/kafka_brokers.h"
#include "sim/kafka/kafka_commands.h"

namespace zem::sim {
namespace {

constexpr uint32_t kCommonAgent = 15;
constexpr uint64_t kSite = 7;

void Profile(const KafkaBrokers& brokers, const std::string& id, const Reply& reply) {
  orlane::zem::context::CommonAgentHostConfigMsg config;
  std::istringstream end_points(brokers.tls());
  for (std::string end_point; std::getline(end_points, end_point, ',');) config.add_end_point(end_point);
  config.set_certificate(brokers.authority());
  config.mutable_site_id()->set_first(kSite);
  config.mutable_site_id()->set_second(kSite);
  orlane::zem::covedb::ProfileMsg profile;
  profile.set_id(id);
  profile.set_type(kCommonAgent);
  profile.set_payload(config.SerializeAsString());
  google::protobuf::TextFormat::Printer printer;
  printer.SetSingleLineMode(true);
  std::string text;
  printer.PrintToString(profile, &text);
  Json result = JsonObject();
  AddMember(result.get(), "object", text);
  reply.Ok(std::move(result));
}

}  // namespace

void RegisterKafkaProfileCommand(CommandTable& table, KafkaService& service) {
  table.Register({"profile", "ID",
                  "The object of type PROFILE that names the brokers and their authority, for \"store put\".",
                  1, 1, [&service](const Arguments& arguments, const Reply& reply) {
                    const auto brokers = service.brokers();
                    if (!brokers) return reply.Fail("the brokers do not run");
                    Profile(*brokers, arguments[0], reply);
                  }});
}

}  // namespace zem::sim
