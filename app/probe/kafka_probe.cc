#include "app/probe/kafka_probe.h"

#include <algorithm>
#include <charconv>
#include <memory>

#include "framework/log/log.h"
#include "framework/process/atomic_file.h"
#include "framework/process/error_text.h"
#include "proto/context/agent_config.pb.h"
#include "proto/context/ids.pb.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "probe"};
constexpr size_t kMostCertificate = 65536;
constexpr uint32_t kMostAlerts = 100000;

}  // namespace

void KafkaProbe::Stop() { slot_.Shutdown(); }

bool KafkaProbe::Raise(Client, const std::string& brokers) {
  ZLOG_INFO("Kafka alarm raised: %s", brokers.c_str());
  return true;
}

void KafkaProbe::Clear(Client, const std::string& brokers) {
  ZLOG_INFO("Kafka alarm cleared: %s", brokers.c_str());
}

Outcome KafkaProbe::Make(const CliArguments& arguments) {
  orlane::zem::context::CommonAgentHostConfigMsg agent;
  for (size_t at = 0; at < arguments[0].size();) {
    const size_t end = std::min(arguments[0].find(',', at), arguments[0].size());
    agent.add_end_point(arguments[0].substr(at, end - at));
    at = end + 1;
  }
  if (const int error = ReadFileWhole(arguments[1], kMostCertificate, agent.mutable_certificate());
      error != 0) {
    return Outcome::Failed(arguments[1] + ": " + Util::GetErrMsg(error));
  }
  agent.set_trust_store(arguments[2]);
  Ctxt::UpdateFromCommonAgent(&config_, agent);
  config_.event_topic = arguments[3];
  Ctxt::SaveBrokerCertFile(config_);
  auto client = std::make_unique<Ctxt::PaceClient::KafkaClient>(config_, this, deliveries_);
  const bool ready = client->IsReady();
  slot_.Replace(std::move(client));
  return ready ? Outcome::Done() : Outcome::Failed("The Kafka client is not ready");
}

Outcome KafkaProbe::Send(const std::string& text) {
  uint32_t count = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  if (error != std::errc() || end != text.data() + text.size() || count > kMostAlerts) {
    return Outcome::Failed("Bad count: " + text);
  }
  const auto client = slot_.Get();
  if (!client) return Outcome::Failed("No Kafka client");
  orlane::zem::context::ids::EventInfoMsg message;
  auto* const alert = message.add_event_info();
  for (uint32_t i = 1; i <= count; ++i) {
    alert->set_signature_id(i);
    client->SendEvent(message);
  }
  return Outcome::Done();
}

Outcome KafkaProbe::Drop() {
  if (!slot_.Get()) return Outcome::Failed("No Kafka client");
  Ctxt::DeleteBrokerCertFile(config_);
  slot_.Replace(nullptr);
  return Outcome::Done();
}

std::string KafkaProbe::State() const {
  const auto client = slot_.Get();
  const auto flag = [](bool value) { return value ? "true" : "false"; };
  return std::string("{\"ready\":") + flag(client && client->IsReady()) +
         ",\"alarm\":" + flag(client && client->alarm_raised()) +
         ",\"delivered\":" + std::to_string(deliveries_.succeeded) +
         ",\"failed\":" + std::to_string(deliveries_.failed) + "}";
}

std::vector<CliCommand> KafkaProbe::Commands() {
  const auto answer = [](CliReply reply, const Outcome& outcome) {
    if (outcome.done()) {
      reply.Ok("Done");
    } else {
      reply.Error(outcome.error());
    }
  };
  return {{"probe/kafka", "<brokers> <authority file> <trust store> <topic>", 4, 4,
           [this, answer](const CliArguments& arguments, CliReply reply) {
             answer(std::move(reply), Make(arguments));
           }},
          {"probe/kafka-send", "<count>", 1, 1,
           [this, answer](const CliArguments& arguments, CliReply reply) {
             answer(std::move(reply), Send(arguments[0]));
           }},
          {"probe/kafka-state", "", 0, 0, [this](const CliArguments&, CliReply reply) { reply.Ok(State()); }},
          {"probe/kafka-drop", "", 0, 0,
           [this, answer](const CliArguments&, CliReply reply) { answer(std::move(reply), Drop()); }}};
}

}  // namespace zem::Tarvik
