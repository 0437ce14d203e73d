#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/core/clock.h"
#include "sim/kafka/certificates.h"

namespace zem::sim {

/// What can be wrong with the brokers, all of them at once.
enum class BrokerFault {
  kDown,            // no connection is taken
  kRefuses,         // each TLS connection is closed after the handshake
  kFull,            // a message is answered with a storage error
  kStuck,           // nothing is read from TLS clients
  kWrongAuthority,  // the certificate is of another authority
  kWrongName,       // the certificate is for another host
  kExpired,         // the certificate has expired
};
/// "down", "refuses", "full", "stuck", "wrong-authority", "wrong-name", "expired".
std::optional<BrokerFault> BrokerFaultOf(const std::string& name);

/// A cluster of Kafka brokers on loopback: librdkafka's own, which speaks the real protocol on plain ports,
/// with a TLS front for each broker.  What was sent can be read back.
///
/// Threads: all operations from any thread; `Read` waits for the brokers.
class KafkaBrokers {
 public:
  explicit KafkaBrokers(int brokers);
  ~KafkaBrokers();
  KafkaBrokers(const KafkaBrokers&) = delete;
  KafkaBrokers& operator=(const KafkaBrokers&) = delete;

  /// "HOST:PORT,HOST:PORT" of the plain ports.
  std::string plain() const;
  /// The TLS ports, as `plain`.
  std::string tls() const;
  /// The certificate of the brokers' authority, PEM.
  const std::string& authority() const { return authority_.certificate(); }
  /// A certificate that the brokers accept from a client.
  KeyPair ClientPair() const { return authority_.Sign("host", "127.0.0.1", 30); }

  /// Writes "host-privkey.pem", "host-cert.pem" and "broker-authority.pem" into `folder`, which ends in "/".
  /// Throws std::runtime_error.
  void WriteHostFiles(const std::string& folder) const;

  void Break(BrokerFault fault);
  void Mend(BrokerFault fault);
  /// How long each answer takes, in addition.
  void SetSlow(int milliseconds);

  struct Topic {
    std::vector<std::string> messages;  // of all partitions
    std::string error;                  // empty when everything was read
  };
  /// Reads all that `topic` holds; what the brokers do not give within `patience` is an error.
  Topic Read(const std::string& topic, Duration patience) const;

  struct Counters {
    uint64_t handshakes = 0;
    uint64_t failed_handshakes = 0;
    uint64_t connected = 0;
  };
  /// Of the TLS fronts together.
  Counters counters() const;

 private:
  class Impl;

  void UseCertificate(const KeyPair& pair);

  const CertificateAuthority authority_;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zem::sim
