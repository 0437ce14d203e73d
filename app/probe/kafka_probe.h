#pragma once

#include <string>
#include <vector>

#include "app/ctxteng/kafka/kafka_client.h"
#include "app/ctxteng/kafka/kafka_client_slot.h"
#include "app/ctxteng/kafka/kafka_config.h"
#include "framework/cli/cli_command.h"
#include "framework/tasks/outcome.h"

namespace zem::Tarvik {

/// Stands in for the users of Kafka: makes a client as a profile would and sends alerts.
///
/// Threads: the commands run one at a time; `Stop` after the last of them.
class KafkaProbe final : public Ctxt::PaceClient::KafkaAlarm {
 public:
  ~KafkaProbe() override { Stop(); }

  /// Drops the client and waits for what it still sends.
  void Stop();

  /// "probe/kafka BROKERS AUTHORITY-FILE TRUST-STORE TOPIC": makes a client in place of the last one; the
  /// file has the certificate of the brokers' authority.  "probe/kafka-send COUNT": sends so many alerts.
  /// "probe/kafka-state" shows what became of them.  "probe/kafka-drop": ends the client and removes its
  /// certificate file.
  std::vector<CliCommand> Commands();

  bool Raise(Client client, const std::string& brokers) override;
  void Clear(Client client, const std::string& brokers) override;

 private:
  Outcome Make(const CliArguments& arguments);
  Outcome Send(const std::string& count);
  Outcome Drop();
  std::string State() const;

  Ctxt::KafkaConfig config_;
  Ctxt::PaceClient::KafkaDeliveries deliveries_;
  Ctxt::PaceClient::KafkaClientSlot slot_;
};

}  // namespace zem::Tarvik
