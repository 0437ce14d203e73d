#include "app/ctxteng/kafka/kafka_config.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "app/ctxteng/kafka/broker_states.h"
#include "proto/context/agent_config.pb.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace Ctxt {
namespace {

using PaceClient::BrokerStates;
using PaceClient::ReadBrokerStates;

TEST(KafkaConfigTest, ProfilesGiveBrokersAndTopics) {
  KafkaConfig config;
  config.metrics_topic = "old";
  orlane::zem::context::CommonAgentHostConfigMsg agent;
  agent.add_end_point("10.0.0.1:9093");
  agent.add_end_point("10.0.0.2:9093");
  agent.set_certificate("PEM");
  UpdateFromCommonAgent(&config, agent);
  EXPECT_EQ(config.brokers, "10.0.0.1:9093,10.0.0.2:9093,");
  EXPECT_EQ(config.certificate, "PEM");
  EXPECT_EQ(BrokerCertFile(config), "/etc/orlane/zem/kafka-broker-cert-tarvik.pem");

  orlane::zem::context::ContextHostConfigMsg host;
  auto* topic = host.add_topic();
  topic->set_type(2);
  topic->set_name("guests");
  host.add_topic()->set_name("of no type");
  UpdateFromHostConfig(&config, host);
  EXPECT_EQ(config.context_topic, "guests");
  EXPECT_EQ(config.metrics_topic, "") << "a topic that the profile no longer has";

  // A second profile replaces the brokers of the first.
  agent.mutable_end_point()->RemoveLast();
  agent.set_trust_store("/tmp/ts");
  UpdateFromCommonAgent(&config, agent);
  EXPECT_EQ(config.brokers, "10.0.0.1:9093,");
  EXPECT_EQ(BrokerCertFile(config), "/tmp/tskafka-broker-cert-tarvik.pem") << "no slash is put in";
}

TEST(KafkaConfigTest, CertificateFileComesAndGoes) {
  const zem::test::TempDir folder;
  const zem::test::LogCapture log;
  KafkaConfig config;
  config.trust_store = folder.Path() + "/";
  config.certificate = "a longer certificate";
  SaveBrokerCertFile(config);
  config.certificate = "short";
  SaveBrokerCertFile(config);
  const std::string file = "kafka-broker-cert-tarvik.pem";
  EXPECT_EQ(folder.Read(file), "short") << "the old text is truncated";
  DeleteBrokerCertFile(config);
  EXPECT_FALSE(std::filesystem::exists(folder.Path(file)));
  DeleteBrokerCertFile(config);
  EXPECT_TRUE(log.Contains("Zemi: kafka broker cert file " + folder.Path(file) + " not found for deleting"));

  // A folder in the file's place: neither written nor removed, and the lines say so.
  std::filesystem::create_directories(folder.Path(file) + "/kept");
  SaveBrokerCertFile(config);
  DeleteBrokerCertFile(config);
  EXPECT_EQ(log.Count("errorCode=\"CTX651\""), 1U);
  EXPECT_EQ(log.Count("errorCode=\"MPACTX653\""), 1U);
  config.trust_store = folder.Path("missing/");
  SaveBrokerCertFile(config);
  EXPECT_EQ(log.Count("errorCode=\"CTX652\""), 1U);
}

TEST(BrokerStatesTest, FirstBrokerAndAnyBroker) {
  struct Case {
    const char* json;
    const char* first;
    bool any_up;
  };
  const Case cases[] = {
      {R"({"name":"p","brokers":{"a:1/1":{"name":"a:1/1","state":"UP","stateage":1}},"topics":{}})", "UP",
       true},
      {R"({"brokers":{"b":{"state":"INIT","x":1},"a":{"state":"UP","x":1}},"topics":{}})", "INIT", true},
      {R"({"brokers":{"b":{"state":"DOWN","x":1}},"topics":{"t":{"state":"UP","x":1}}})", "DOWN", false},
      {R"({"state":"UP","brokers":{}})", "", false},
      {R"({"brokers":{"a":{"state":"UP)", "UP", true},
      {"{}", "", false},
      {"", "", false},
  };
  for (const Case& c : cases) {
    const BrokerStates states = ReadBrokerStates(c.json);
    EXPECT_EQ(states.first, c.first) << c.json;
    EXPECT_EQ(states.any_up, c.any_up) << c.json;
  }
}

}  // namespace
}  // namespace Ctxt
